#pragma once

// Everything a host application needs.
#include "veltoaudio/AudioFormat.hpp"
#include "veltoaudio/AudioLevels.hpp"
#include "veltoaudio/AudioSources.hpp"
#include "veltoaudio/BufferConfiguration.hpp"
#include "veltoaudio/Error.hpp"
#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/Logging.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"
#include "veltoaudio/PcmBuffer.hpp"
#include "veltoaudio/PermissionState.hpp"
#include "veltoaudio/RecordingConfiguration.hpp"
#include "veltoaudio/RecordingError.hpp"
#include "veltoaudio/RecordingEvent.hpp"
#include "veltoaudio/RecordingService.hpp"
#include "veltoaudio/TrackLayout.hpp"
#include "veltoaudio/UserDefaultsMicrophoneStorage.hpp"
