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

constexpr const char* kManagerCategory = "SystemAudioPermissionManager";

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
    std::atomic<int> opens{0};
    std::atomic<int> lookUps{0};
    std::string openedPath;

    void* open(const std::string& path, int) override {
        ++opens;
        openedPath = path;
        return libraryPresent ? static_cast<void*>(this) : nullptr;
    }
    void* lookUp(void*, const char* symbol) override {
        ++lookUps;
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
    SystemAudioPermissionManager manager(std::shared_ptr<platform::TCCPermissionProviderProtocol> provider,
                                         OperatingSystemVersion version = {14, 4, 0}) {
        return SystemAudioPermissionManager(std::move(provider), hardware, [version] { return version; });
    }

    CapturedLogs logs;
    std::shared_ptr<ScriptedLoader> loader = std::make_shared<ScriptedLoader>();
    std::shared_ptr<FakeAudioHardware> hardware = FakeAudioHardware::create();
};

// MARK: - Provider

TEST_F(SystemAudioPermissionTest, preflightResultsMapToStates) {
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
    // Loaded once, asked every time.
    EXPECT_EQ(loader->opens.load(), 1);
    EXPECT_EQ(loader->lookUps.load(), 1);
    EXPECT_EQ(loader->openedPath, "/scripted/TCC");
}

TEST_F(SystemAudioPermissionTest, missingLibraryOrFunctionsAreLookedForOnceAndNeverRetried) {
    for (const bool libraryMissing : {true, false}) {
        SCOPED_TRACE(libraryMissing ? "library missing" : "functions missing");
        loader = std::make_shared<ScriptedLoader>();
        loader->libraryPresent = !libraryMissing;
        loader->preflightPresent = loader->requestPresent = false;
        auto tcc = provider();
        EXPECT_EQ(tcc->checkPermissionStatus(), PermissionState::notDetermined);
        EXPECT_EQ(tcc->checkPermissionStatus(), PermissionState::notDetermined);
        try {
            tcc->requestAudioCapturePermission();
            FAIL() << "request without the function";
        } catch (const TCCPermissionProvider::Error& error) {
            EXPECT_EQ(error.caseDescription(), "cannotUseTCC");
        }
        EXPECT_EQ(loader->opens.load(), 1);
        EXPECT_EQ(loader->lookUps.load(), libraryMissing ? 0 : 2);
    }
}

TEST_F(SystemAudioPermissionTest, concurrentFirstUseLoadsOnce) {
    auto tcc = provider();
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([&] { tcc->checkPermissionStatus(); });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(loader->opens.load(), 1);
    EXPECT_EQ(loader->lookUps.load(), 1);
}

TEST_F(SystemAudioPermissionTest, requestWaitsForTheCompletionOnAnotherThread) {
    auto tcc = provider();
    gRequestAnswer = false;
    EXPECT_FALSE(tcc->requestAudioCapturePermission());
    gRequestAnswer = true;
    EXPECT_TRUE(tcc->requestAudioCapturePermission());
}

// MARK: - Manager

TEST_F(SystemAudioPermissionTest, olderSystemsAreRefusedWithoutAskingTheProvider) {
    auto scripted = std::make_shared<ScriptedTccProvider>();
    EXPECT_FALSE(manager(scripted, {14, 3, 0}).requestPermission());
    EXPECT_EQ(scripted->requests.load(), 0);
}

TEST_F(SystemAudioPermissionTest, aUserRefusalIsFinalWithoutTheTapFallback) {
    gRequestAnswer = false;
    EXPECT_FALSE(manager(provider()).requestPermission());
    EXPECT_EQ(gRequestCalls.load(), 1);
    EXPECT_TRUE(hardware->calls().empty());
}

TEST_F(SystemAudioPermissionTest, missingLibraryFallsBackToAThrowAwayTap) {
    loader->libraryPresent = false;
    EXPECT_TRUE(manager(provider()).requestPermission());
    EXPECT_THAT(hardware->calls(), ElementsAre("createProcessTap", "destroyProcessTap(77)"));
    auto tap = hardware->lastTapDescription();
    ASSERT_TRUE(tap.has_value());
    EXPECT_EQ(tap->name, "Ondrel-PermissionRequest");
    EXPECT_TRUE(tap->isPrivate);
    EXPECT_TRUE(tap->isExclusive);
    EXPECT_TRUE(tap->processes.empty());
    EXPECT_EQ(tap->muteBehavior, platform::TapMuteBehavior::unmuted);
    EXPECT_EQ(tap->uuid.size(), 36u);
}

TEST_F(SystemAudioPermissionTest, anyProviderFailureLeadsToTheTapWhoseStatusDecides) {
    auto scripted = std::make_shared<ScriptedTccProvider>();
    scripted->requestError = std::make_exception_ptr(RecordingError::notRecording());

    hardware->setStatus("createProcessTap", platform::kAudioHardwareNotRunningError);
    // Which error the status means shows only in the log: the manager answers false.
    const std::pair<platform::OSStatus, std::string> cases[] = {
        {platform::kAudioHardwareNotRunningError, "systemAudioPermissionDenied"},
        {platform::kAudioHardwareBadObjectError, "systemAudioPermissionDenied"},
        {platform::kAudio_ParamError, "systemAudioTapCreationFailed(-50)"}};
    for (const auto& [status, error] : cases) {
        logs.clear();
        hardware->setStatus("createProcessTap", status);
        EXPECT_FALSE(manager(scripted).requestPermission()) << status;
        EXPECT_TRUE(logs.contains(LogLevel::critical, kManagerCategory, "Permission request failed: " + error));
    }
    // A tap that was never made is never destroyed.
    for (const auto& call : hardware->calls()) EXPECT_EQ(call, "createProcessTap");
}

// MARK: - The sound-server substitute

TEST(PulseTccSubstituteTest, withoutASoundServerTheAnswerIsUndetermined) {
    const char* saved = std::getenv("PULSE_SERVER");
    const std::optional<std::string> previous = saved ? std::optional<std::string>(saved) : std::nullopt;
    ::setenv("PULSE_SERVER", "unix:/nonexistent/velto-no-server", 1);

    EXPECT_EQ(TCCAccessPreflight("kTCCServiceAudioCapture", nullptr), 2);
    EXPECT_EQ(TCCAccessPreflight("kTCCServiceCamera", nullptr), 2);
    std::vector<bool> answers;
    TCCAccessRequest("kTCCServiceAudioCapture", nullptr,
                     [](void* context, bool granted) { static_cast<std::vector<bool>*>(context)->push_back(granted); },
                     &answers);
    EXPECT_EQ(answers, std::vector<bool>{false});

    previous ? ::setenv("PULSE_SERVER", previous->c_str(), 1) : ::unsetenv("PULSE_SERVER");
}

}  // namespace
}  // namespace velto::testing
