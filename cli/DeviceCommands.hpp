#pragma once

#include "CommandLineOptions.hpp"
#include "Console.hpp"
#include "RecordingBackend.hpp"

namespace velto::cli {

// `velto devices`, `velto permissions` and `velto microphone set|clear|show`. Each returns
// the process's exit status and writes its result to standard output (text or JSON) and
// any problem as one line on standard error.

int runDevices(const DevicesOptions& options, RecordingBackend& backend, Console& console);
int runPermissions(const PermissionsOptions& options, RecordingBackend& backend, Console& console);
int runMicrophone(const MicrophoneOptions& options, RecordingBackend& backend, Console& console);

}  // namespace velto::cli
