// The system-audio permission: loading the two permission functions, mapping their
// answers, and the manager's fallback to a throw-away tap.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "platform/SystemAudioPermissionManager.hpp"
#include "platform/TCCPermissionProvider.hpp"
#include "platform/fake/FakeAudioHardware.hpp"
#include "platform/pulse/PulseTccSubstitute.hpp"
#include "service/ServiceTestDoubles.hpp"
#include "support/CapturedLogs.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::testing {
namespace {

using platform::FakeAudioHardware;
using platform::SystemAudioPermissionManager;
using platform::TCCPermissionProvider;
using platform::TccLibrary;
using ::testing::ElementsAre;

// What the scripted library's functions answer (they are plain C functions).
std::atomic<int> gPreflightResult{0};
std::atomic<bool> gRequestAnswer{true};
std::atomic<int> gRequestCalls{0};

int scriptedPreflight(const char* service, const void* options) {
    return (std::string(service) == "kTCCServiceAudioCapture" && options == nullptr) ? gPreflightResult.load() : -1;
}

// Answers on another thread, as the system does.
void scriptedRequest(const char*, const void*, platform::TccAccessRequestCompletion completion, void* context) {
    ++gRequestCalls;
    std::thread([completion, context] { completion(context, gRequestAnswer.load()); }).join();
}

class ScriptedLoader final : public platform::DynamicLoader {
public:
    bool libraryPresent = true;
    bool preflightPresent = true;
    bool requestPresent = true;

    void* open(const std::string&, int) override { return libraryPresent ? static_cast<void*>(this) : nullptr; }
    void* lookUp(void*, const char* symbol) override {
        if (std::string(symbol) == "TCCAccessPreflight" && preflightPresent)
            return reinterpret_cast<void*>(&scriptedPreflight);
        if (std::string(symbol) == "TCCAccessRequest" && requestPresent)
            return reinterpret_cast<void*>(&scriptedRequest);
        return nullptr;
    }
};

class SystemAudioPermissionTest : public ::testing::Test {
protected:
    SystemAudioPermissionTest() {
        gPreflightResult = 0;
        gRequestAnswer = true;
        gRequestCalls = 0;
    }
    std::shared_ptr<TCCPermissionProvider> provider() {
        return std::make_shared<TCCPermissionProvider>(std::make_shared<TccLibrary>(loader, "/scripted/TCC"));
    }
    SystemAudioPermissionManager manager(std::shared_ptr<platform::TCCPermissionProviderProtocol> provider) {
        return SystemAudioPermissionManager(std::move(provider), hardware);
    }

    CapturedLogs logs;
    std::shared_ptr<ScriptedLoader> loader = std::make_shared<ScriptedLoader>();
    std::shared_ptr<FakeAudioHardware> hardware = FakeAudioHardware::create();
};

// MARK: - Provider

TEST_F(SystemAudioPermissionTest, preflightResultsMapToStatesAndTheRequestWaitsForItsAnswer) {
    auto tcc = provider();
    const std::pair<int, PermissionState> cases[] = {
        {0, PermissionState::granted},
        {1, PermissionState::denied},
        {2, PermissionState::notDetermined},
        {-7, PermissionState::notDetermined},
    };
    for (const auto& [result, state] : cases) {
        gPreflightResult = result;
        EXPECT_EQ(tcc->checkPermissionStatus(), state) << result;
    }
    // The answer comes on another thread, as the system gives it.
    gRequestAnswer = false;
    EXPECT_FALSE(tcc->requestAudioCapturePermission());
    gRequestAnswer = true;
    EXPECT_TRUE(tcc->requestAudioCapturePermission());
}

TEST_F(SystemAudioPermissionTest, missingLibraryOrFunctionsLeaveTheStateUndetermined) {
    for (const bool libraryMissing : {true, false}) {
        SCOPED_TRACE(libraryMissing ? "library missing" : "functions missing");
        loader = std::make_shared<ScriptedLoader>();
        loader->libraryPresent = !libraryMissing;
        loader->preflightPresent = loader->requestPresent = false;
        auto tcc = provider();
        EXPECT_EQ(tcc->checkPermissionStatus(), PermissionState::notDetermined);
        try {
            tcc->requestAudioCapturePermission();
            FAIL() << "request without the function";
        } catch (const TCCPermissionProvider::Error& error) {
            EXPECT_EQ(error.caseDescription(), "cannotUseTCC");
        }
    }
}

// MARK: - Manager

// A user's refusal is final; without the permission functions, or when they fail, a
// throw-away tap decides.
TEST_F(SystemAudioPermissionTest, aUserRefusalIsFinalAndWithoutAnAnswerAThrowAwayTapDecides) {
    gRequestAnswer = false;
    EXPECT_FALSE(manager(provider()).requestPermission());
    EXPECT_EQ(gRequestCalls.load(), 1);
    EXPECT_TRUE(hardware->calls().empty());

    loader->libraryPresent = false;
    EXPECT_TRUE(manager(provider()).requestPermission());
    EXPECT_THAT(hardware->calls(), ElementsAre("createProcessTap", "destroyProcessTap(77)"));

    auto scripted = std::make_shared<ScriptedTccProvider>();
    scripted->requestError = std::make_exception_ptr(RecordingError::notRecording());
    for (const auto status : {platform::kAudioHardwareNotRunningError, platform::kAudioHardwareBadObjectError,
                              platform::kAudio_ParamError}) {
        hardware->setStatus("createProcessTap", status);
        EXPECT_FALSE(manager(scripted).requestPermission()) << status;
    }
}

// MARK: - The sound-server substitute

TEST(PulseTccSubstituteTest, withoutASoundServerTheAnswerIsUndetermined) {
    const char* saved = std::getenv("PULSE_SERVER");
    const std::optional<std::string> previous = saved ? std::optional<std::string>(saved) : std::nullopt;
    ::setenv("PULSE_SERVER", "unix:/nonexistent/velto-no-server", 1);

    EXPECT_EQ(TCCAccessPreflight("kTCCServiceAudioCapture", nullptr), 2);
    std::vector<bool> answers;
    TCCAccessRequest("kTCCServiceAudioCapture", nullptr,
                     [](void* context, bool granted) { static_cast<std::vector<bool>*>(context)->push_back(granted); },
                     &answers);
    EXPECT_EQ(answers, std::vector<bool>{false});

    previous ? ::setenv("PULSE_SERVER", previous->c_str(), 1) : ::unsetenv("PULSE_SERVER");
}

}  // namespace
}  // namespace velto::testing
