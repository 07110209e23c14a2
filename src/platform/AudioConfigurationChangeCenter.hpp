#pragma once
// Announces that the machine's audio configuration changed (a device came or went, the
// default input or output moved): the audio-engine configuration-change notification.
//
// Threads: add/remove from any thread. Observer blocks are called on an arbitrary
// thread; after removeObserver() returns, the block is not started again.

#include <cstdint>
#include <functional>

namespace velto::platform {

using ConfigurationChangeObserverToken = std::uint64_t;

class AudioConfigurationChangeCenter {
public:
    virtual ~AudioConfigurationChangeCenter() = default;
    virtual ConfigurationChangeObserverToken addObserver(std::function<void()> block) = 0;
    virtual void removeObserver(ConfigurationChangeObserverToken token) = 0;
};

}  // namespace velto::platform
