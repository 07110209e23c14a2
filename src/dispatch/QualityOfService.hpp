#pragma once

namespace velto {

// How urgent a queue's work is; mapped onto thread priority where the OS allows.
enum class QualityOfService { userInteractive, userInitiated, defaultQoS, utility, background };

const char* caseName(QualityOfService qos);

}  // namespace velto
