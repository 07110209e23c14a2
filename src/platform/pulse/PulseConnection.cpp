#include "platform/pulse/PulseConnection.hpp"

#include "logging/LoggerCompat.hpp"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>

namespace velto::pulse {
namespace {

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "PulseConnection"};
    return instance;
}

std::chrono::milliseconds toDuration(double seconds) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000.0));
}

std::string text(const char* value) { return value == nullptr ? std::string() : std::string(value); }

}  // namespace

std::string pulseErrorText(int error) { return text(pa_strerror(error)); }

PulseConnection::MainloopLock::MainloopLock(const PulseConnection& connection) : mainloop_(connection.mainloop_) {
    pa_threaded_mainloop_lock(mainloop_);
}

PulseConnection::MainloopLock::~MainloopLock() { pa_threaded_mainloop_unlock(mainloop_); }

void PulseConnection::Completion::signal() {
    std::lock_guard lock(mutex);
    done = true;
    condition.notify_all();
}

bool isServerUnreachable(int error) {
    switch (error) {
        case PA_ERR_CONNECTIONREFUSED:
        case PA_ERR_CONNECTIONTERMINATED:
        case PA_ERR_TIMEOUT:
        case PA_ERR_INVALIDSERVER:
        case PA_ERR_NOENTITY:
            return true;
        default:
            return false;
    }
}

std::string serverAddressTried() {
    const auto variable = [](const char* name) -> std::string {
        const char* value = std::getenv(name);
        return value != nullptr ? value : "";
    };
    if (auto server = variable("PULSE_SERVER"); !server.empty()) return server;
    if (auto runtime = variable("PULSE_RUNTIME_PATH"); !runtime.empty()) return "unix:" + runtime + "/native";
    if (auto runtime = variable("XDG_RUNTIME_DIR"); !runtime.empty()) return "unix:" + runtime + "/pulse/native";
    return "the default local socket";
}

std::shared_ptr<PulseConnection> PulseConnection::shared() {
    static std::mutex mutex;
    static std::weak_ptr<PulseConnection> instance;
    std::lock_guard lock(mutex);
    auto connection = instance.lock();
    if (!connection) {
        connection = create("VeltoAudio", 10.0);
        instance = connection;
    }
    return connection;
}

std::shared_ptr<PulseConnection> PulseConnection::create(std::string applicationName, double timeoutSeconds) {
    return std::make_shared<PulseConnection>(std::move(applicationName), timeoutSeconds);
}

PulseConnection::PulseConnection(std::string applicationName, double timeoutSeconds)
    : applicationName_(std::move(applicationName)), timeoutSeconds_(timeoutSeconds) {
    mainloop_ = pa_threaded_mainloop_new();
    pa_threaded_mainloop_set_name(mainloop_, "velto-pulse");
    if (pa_threaded_mainloop_start(mainloop_) < 0) logger().critical("Could not start the PulseAudio main loop");
}

PulseConnection::~PulseConnection() {
    {
        MainloopLock lock(*this);
        discardContext();
    }
    pa_threaded_mainloop_stop(mainloop_);
    pa_threaded_mainloop_free(mainloop_);
}

void PulseConnection::discardContext() {
    if (context_ == nullptr) return;
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_set_subscribe_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
    pa_context_unref(context_);
    context_ = nullptr;
    contextState_ = PA_CONTEXT_UNCONNECTED;
    if (connected_.exchange(false)) notifyConnection(false);
}

void PulseConnection::contextStateCallback(pa_context* context, void* userdata) {
    auto* self = static_cast<PulseConnection*>(userdata);
    const pa_context_state_t state = pa_context_get_state(context);
    {
        std::lock_guard lock(self->stateMutex_);
        self->contextState_ = state;
    }
    self->stateChanged_.notify_all();
    if ((state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED) && self->connected_.exchange(false)) {
        // The server went away: tell the listeners now; the next request reconnects.
        self->notifyConnection(false);
    }
}

void PulseConnection::subscribeCallback(pa_context*, pa_subscription_event_type_t type, std::uint32_t index,
                                        void* userdata) {
    auto* self = static_cast<PulseConnection*>(userdata);
    std::lock_guard lock(self->listenersMutex_);
    for (const auto& [token, listener] : self->eventListeners_) listener(type, index);
}

void PulseConnection::notifyConnection(bool connected) {
    std::lock_guard lock(listenersMutex_);
    for (const auto& [token, listener] : connectionListeners_) listener(connected);
}

int PulseConnection::ensureConnected() {
    if (connected_.load() && contextState_.load() == PA_CONTEXT_READY) return PA_OK;
    std::lock_guard connecting(connectMutex_);
    {
        MainloopLock lock(*this);
        if (context_ != nullptr && pa_context_get_state(context_) == PA_CONTEXT_READY) return PA_OK;
        discardContext();
        pa_proplist* properties = pa_proplist_new();
        pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, applicationName_.c_str());
        pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "io.veltoaudio");
        context_ = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(mainloop_), applicationName_.c_str(),
                                                properties);
        pa_proplist_free(properties);
        if (context_ == nullptr) return PA_ERR_INTERNAL;
        contextState_ = PA_CONTEXT_UNCONNECTED;
        pa_context_set_state_callback(context_, contextStateCallback, this);
        pa_context_set_subscribe_callback(context_, subscribeCallback, this);
        // A library must not spawn a sound server behind the application's back.
        if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
            const int error = pa_context_errno(context_);
            discardContext();
            return error == PA_OK ? PA_ERR_CONNECTIONREFUSED : error;
        }
    }
    {
        std::unique_lock lock(stateMutex_);
        stateChanged_.wait_for(lock, toDuration(timeoutSeconds_), [this] {
            const int state = contextState_.load();
            return state == PA_CONTEXT_READY || state == PA_CONTEXT_FAILED || state == PA_CONTEXT_TERMINATED;
        });
    }
    MainloopLock lock(*this);
    if (context_ == nullptr) return PA_ERR_CONNECTIONTERMINATED;
    const pa_context_state_t state = pa_context_get_state(context_);
    if (state != PA_CONTEXT_READY) {
        int error = state == PA_CONTEXT_FAILED ? pa_context_errno(context_) : PA_ERR_TIMEOUT;
        if (error == PA_OK) error = PA_ERR_CONNECTIONREFUSED;
        discardContext();
        return error;
    }
    const auto mask = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SINK |
                                                          PA_SUBSCRIPTION_MASK_SERVER);
    if (pa_operation* operation = pa_context_subscribe(context_, mask, nullptr, nullptr)) pa_operation_unref(operation);
    connected_ = true;
    notifyConnection(true);
    return PA_OK;
}

bool PulseConnection::await(pa_operation* operation, Completion& completion) {
    return await(std::span<pa_operation* const>(&operation, 1), completion);
}

bool PulseConnection::await(std::span<pa_operation* const> operations, Completion& completion) {
    ++roundTrips_;
    bool completed = false;
    {
        std::unique_lock lock(completion.mutex);
        completed = completion.condition.wait_for(lock, toDuration(timeoutSeconds_), [&] { return completion.done; });
    }
    MainloopLock lock(*this);
    if (!completed) {
        // It may have finished in between; with the main-loop lock held that answer is final.
        {
            std::lock_guard doneLock(completion.mutex);
            completed = completion.done;
        }
        if (!completed) {
            for (pa_operation* operation : operations) pa_operation_cancel(operation);
        }
    }
    for (pa_operation* operation : operations) pa_operation_unref(operation);
    return completed;
}

PulseResult<PulseServerInfo> PulseConnection::serverInfo() {
    if (const int error = ensureConnected(); error != PA_OK) return {std::nullopt, error};
    struct Request {
        Completion completion;
        PulseServerInfo info;
    } request;
    pa_operation* operation = nullptr;
    {
        MainloopLock lock(*this);
        if (context_ == nullptr) return {std::nullopt, PA_ERR_CONNECTIONTERMINATED};
        operation = pa_context_get_server_info(
            context_,
            [](pa_context*, const pa_server_info* info, void* userdata) {
                auto* request = static_cast<Request*>(userdata);
                if (info != nullptr) {
                    request->info.defaultSinkName = text(info->default_sink_name);
                    request->info.defaultSourceName = text(info->default_source_name);
                }
                request->completion.signal();
            },
            &request);
        if (operation == nullptr) return {std::nullopt, pa_context_errno(context_)};
    }
    if (!await(operation, request.completion)) return {std::nullopt, PA_ERR_TIMEOUT};
    return {request.info, PA_OK};
}

const PulseSinkInfo* PulseServerSnapshot::defaultSink() const {
    for (const auto& sink : sinks) {
        if (sink.name == server.defaultSinkName) return &sink;
    }
    return nullptr;
}

const PulseSourceInfo* PulseServerSnapshot::source(std::string_view name) const {
    for (const auto& source : sources) {
        if (source.name == name) return &source;
    }
    return nullptr;
}

PulseResult<PulseServerSnapshot> PulseConnection::snapshot() {
    if (const int error = ensureConnected(); error != PA_OK) return {std::nullopt, error};
    // The callbacks all run on the main-loop thread, one at a time; only the count of
    // answers still due is shared with the waiting caller.
    struct Request {
        Completion completion;
        int pending = 0;
        bool failed = false;
        PulseServerSnapshot snapshot;
        void answered(bool failure) {
            std::lock_guard lock(completion.mutex);
            failed = failed || failure;
            if (--pending == 0) {
                completion.done = true;
                completion.condition.notify_all();
            }
        }
    } request;
    std::array<pa_operation*, 4> operations{};
    {
        MainloopLock lock(*this);
        if (context_ == nullptr) return {std::nullopt, PA_ERR_CONNECTIONTERMINATED};
        operations[0] = pa_context_get_server_info(
            context_,
            [](pa_context*, const pa_server_info* info, void* userdata) {
                auto* request = static_cast<Request*>(userdata);
                if (info != nullptr) {
                    request->snapshot.server.defaultSinkName = text(info->default_sink_name);
                    request->snapshot.server.defaultSourceName = text(info->default_source_name);
                }
                request->answered(info == nullptr);
            },
            &request);
        operations[1] = pa_context_get_sink_info_list(
            context_,
            [](pa_context*, const pa_sink_info* info, int eol, void* userdata) {
                auto* request = static_cast<Request*>(userdata);
                if (eol != 0) {
                    request->answered(eol < 0);
                    return;
                }
                request->snapshot.sinks.push_back(PulseSinkInfo{
                    info->index, text(info->name), text(info->description), static_cast<double>(info->sample_spec.rate),
                    info->sample_spec.channels, text(info->monitor_source_name)});
            },
            &request);
        operations[2] = pa_context_get_source_info_list(
            context_,
            [](pa_context*, const pa_source_info* info, int eol, void* userdata) {
                auto* request = static_cast<Request*>(userdata);
                if (eol != 0) {
                    request->answered(eol < 0);
                    return;
                }
                request->snapshot.sources.push_back(PulseSourceInfo{
                    info->index, text(info->name), text(info->description), static_cast<double>(info->sample_spec.rate),
                    info->sample_spec.channels, info->monitor_of_sink != PA_INVALID_INDEX,
                    text(pa_proplist_gets(info->proplist, PA_PROP_DEVICE_BUS))});
            },
            &request);
        operations[3] = pa_context_get_sink_input_info_list(
            context_,
            [](pa_context*, const pa_sink_input_info* info, int eol, void* userdata) {
                auto* request = static_cast<Request*>(userdata);
                if (eol != 0) {
                    request->answered(eol < 0);
                    return;
                }
                request->snapshot.sinkInputs.push_back(info->index);
            },
            &request);
        const auto sent =
            std::count_if(operations.begin(), operations.end(), [](pa_operation* o) { return o != nullptr; });
        if (sent < static_cast<std::ptrdiff_t>(operations.size())) {
            // A context that refuses one request refuses the rest: give back what went out.
            for (pa_operation* operation : operations) {
                if (operation == nullptr) continue;
                pa_operation_cancel(operation);
                pa_operation_unref(operation);
            }
            return {std::nullopt, pa_context_errno(context_)};
        }
        request.pending = static_cast<int>(operations.size());
    }
    if (!await(operations, request.completion)) return {std::nullopt, PA_ERR_TIMEOUT};
    if (request.failed) return {std::nullopt, PA_ERR_UNKNOWN};
    return {std::move(request.snapshot), PA_OK};
}

std::uint64_t PulseConnection::addEventListener(EventListener listener) {
    std::lock_guard lock(listenersMutex_);
    const auto token = nextListenerToken_++;
    eventListeners_.emplace(token, std::move(listener));
    return token;
}

std::uint64_t PulseConnection::addConnectionListener(ConnectionListener listener) {
    std::lock_guard lock(listenersMutex_);
    const auto token = nextListenerToken_++;
    connectionListeners_.emplace(token, std::move(listener));
    return token;
}

void PulseConnection::removeListener(std::uint64_t token) {
    std::lock_guard lock(listenersMutex_);
    eventListeners_.erase(token);
    connectionListeners_.erase(token);
}

}  // namespace velto::pulse
