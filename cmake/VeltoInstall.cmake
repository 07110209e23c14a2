include(CMakePackageConfigHelpers)

install(TARGETS veltoaudio EXPORT VeltoAudioTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/veltoaudio DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT VeltoAudioTargets NAMESPACE VeltoAudio::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VeltoAudio)

configure_package_config_file(cmake/VeltoAudioConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/VeltoAudioConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VeltoAudio)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VeltoAudioConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/VeltoAudioConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/VeltoAudioConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/VeltoAudio)

# The prefix is found relative to the .pc file, so `cmake --install --prefix` anywhere works.
file(RELATIVE_PATH VELTO_PC_PREFIX_FROM_PCFILEDIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/veltoaudio.pc.in ${CMAKE_CURRENT_BINARY_DIR}/veltoaudio.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/veltoaudio.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
