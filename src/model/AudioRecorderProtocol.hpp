#pragma once

#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/PcmBuffer.hpp"
#include "veltoaudio/RecordingEvent.hpp"

namespace velto {

// The recorder contract the recording service is written against. It lives below both
// recorders and the service, so that neither recorder includes anything of the service.
//
// Threads: the service calls events() once from its forwarding task and the control
// operations from whichever caller thread drives the service; a recorder serialises its
// own work (each control operation returns when that work has run).
class AudioRecorderProtocol {
public:
    virtual ~AudioRecorderProtocol() = default;

    // The recorder's event sequence. Obtaining it is "taking the iterator": a recorder is
    // recording no later than when this is first called (a recorder may schedule its start
    // here). Called once. The sequence ends normally when the recording is over, or with
    // the recorder's error.
    virtual EventStream<RecordingEvent> events() = 0;

    // Each returns when the recorder's work has run; none of them throws.
    virtual void stop() = 0;
    virtual void pause() = 0;
    virtual void resume() = 0;
    virtual void cancel() = 0;

    // The recorded buffers, for a live consumer. Read by the service right after construction.
    virtual AudioBufferStream audioStream() = 0;
};

}  // namespace velto
