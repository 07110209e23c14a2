#pragma once
// Linux has no privacy-permission service. These two functions stand in for the ones the
// permission provider loads from it, with the same C signatures and results, and answer
// truthfully from the sound server for "kTCCServiceAudioCapture":
//   0 (granted)       the default output's monitor source can be recorded;
//   1 (denied)        the server refuses this client or the stream;
//   2 (undetermined)  no server answers, it has no output to monitor, or another service
//                     is asked about.
// A request cannot show a prompt here: it answers whether access is granted now, calling
// the completion once, on the caller's thread, before it returns.
//
// They are exported with C linkage from the library itself and found again through the
// dynamic loader (see TccLibrary::platformLibraryPath()), so the loading logic runs the
// same as with the real service. In the shared veltoaudio library they are exported by
// default; a program that links the static libraries must export them itself
// (-rdynamic), or the provider reports the functions as missing.
//
// Threads: any thread but the sound-server main loop; both block for at most the server
// connection's time-outs.

#include <string>

extern "C" {
int TCCAccessPreflight(const char* service, const void* options);
void TCCAccessRequest(const char* service, const void* options, void (*completion)(void* context, bool granted),
                      void* context);
}

namespace velto::pulse {

// The object file (shared library or program) that holds the two functions; empty for
// the main program, which the loader opens as dlopen(nullptr).
std::string tccSubstituteLibraryPath();

}  // namespace velto::pulse
