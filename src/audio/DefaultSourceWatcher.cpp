#include "audio/DefaultSourceWatcher.h"

#include "core/Handoff.h"

#include <pulse/pulseaudio.h>

namespace {

// The watcher's state is guarded by the main loop's lock, which libpulse also holds while it runs
// the callbacks below on its own thread. libpulse is not instrumented, so ThreadSanitizer cannot see
// that lock: whoever holds it says so (core/Handoff.h), with the watcher as the channel.
class Holding {
public:
    explicit Holding(const void* watcher) : watcher_(watcher) { Handoff::received(watcher_); }
    ~Holding() { Handoff::sent(watcher_); }
    Holding(const Holding&) = delete;
    Holding& operator=(const Holding&) = delete;

private:
    const void* watcher_;
};

// Takes the main loop's lock, for the calling thread.
class Locked {
public:
    Locked(pa_threaded_mainloop* mainloop, const void* watcher) : mainloop_(mainloop), watcher_(watcher)
    {
        pa_threaded_mainloop_lock(mainloop_);
        Handoff::received(watcher_);
    }
    ~Locked()
    {
        Handoff::sent(watcher_);
        pa_threaded_mainloop_unlock(mainloop_);
    }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    pa_threaded_mainloop* mainloop_;
    const void* watcher_;
};

}  // namespace

DefaultSourceWatcher::DefaultSourceWatcher() : mainloop_(pa_threaded_mainloop_new()) {}

DefaultSourceWatcher::~DefaultSourceWatcher()
{
    if (!mainloop_)
        return;
    if (started_) {
        {
            const Locked locked(mainloop_, this);
            disconnect();
        }
        pa_threaded_mainloop_stop(mainloop_);
    }
    pa_threaded_mainloop_free(mainloop_);
}

std::optional<QString> DefaultSourceWatcher::defaultSourceName(int timeoutMs)
{
    if (!mainloop_)
        return std::nullopt;
    if (!started_) {
        if (pa_threaded_mainloop_start(mainloop_) < 0)
            return std::nullopt;
        started_ = true;
    }
    const Locked locked(mainloop_, this);
    std::optional<QString> name;
    if (connect(timeoutMs)) {
        // Ask afresh rather than trust the last answer: change events can be missed.
        const int before = answers_;
        requestServerInfo();
        if (waitUntil([&] { return answers_ > before; }, timeoutMs))
            name = defaultSource_;
    }
    return name;
}

bool DefaultSourceWatcher::connect(int timeoutMs)
{
    if (context_ && pa_context_get_state(context_) == PA_CONTEXT_READY)
        return true;
    disconnect();
    context_ = pa_context_new(pa_threaded_mainloop_get_api(mainloop_), "Tolvane");
    if (!context_)
        return false;
    pa_context_set_state_callback(context_, &DefaultSourceWatcher::contextStateChanged, this);
    if (pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        disconnect();
        return false;
    }
    const bool settled = waitUntil(
        [this] {
            const pa_context_state_t state = pa_context_get_state(context_);
            return state == PA_CONTEXT_READY || !PA_CONTEXT_IS_GOOD(state);
        },
        timeoutMs);
    if (!settled || pa_context_get_state(context_) != PA_CONTEXT_READY) {
        disconnect();
        return false;
    }
    pa_context_set_subscribe_callback(
        context_,
        [](pa_context* context, pa_subscription_event_type_t type, uint32_t index, void* self) {
            const Holding holding(self);
            serverEvent(context, type, index, self);
        },
        this);
    if (pa_operation* op = pa_context_subscribe(context_, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr))
        pa_operation_unref(op);
    return true;
}

void DefaultSourceWatcher::disconnect()
{
    if (!context_)
        return;
    pa_context_set_state_callback(context_, nullptr, nullptr);
    pa_context_set_subscribe_callback(context_, nullptr, nullptr);
    pa_context_disconnect(context_);
    pa_context_unref(context_);
    context_ = nullptr;
}

bool DefaultSourceWatcher::waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    waitExpired_ = false;
    pa_time_event* timer = pa_context_rttime_new(context_, pa_rtclock_now() + static_cast<pa_usec_t>(timeoutMs) * 1000,
                                                 &DefaultSourceWatcher::deadlinePassed, this);
    while (!done() && !waitExpired_) {
        Handoff::sent(this);  // the wait lets go of the lock until it is signalled
        pa_threaded_mainloop_wait(mainloop_);
        Handoff::received(this);
    }
    if (timer)
        pa_threaded_mainloop_get_api(mainloop_)->time_free(timer);
    return done();
}

void DefaultSourceWatcher::requestServerInfo()
{
    pa_operation* op = pa_context_get_server_info(
        context_,
        [](pa_context*, const pa_server_info* info, void* data) {
            const Holding holding(data);
            auto* self = static_cast<DefaultSourceWatcher*>(data);
            std::optional<QString> name;
            if (info && info->default_source_name && *info->default_source_name)
                name = QString::fromUtf8(info->default_source_name);
            const bool changed = self->answers_ > 0 && name != self->defaultSource_;
            self->defaultSource_ = name;
            ++self->answers_;
            pa_threaded_mainloop_signal(self->mainloop_, 0);
            if (changed && self->onChanged)
                self->onChanged();
        },
        this);
    if (op)
        pa_operation_unref(op);
}

void DefaultSourceWatcher::deadlinePassed(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* self)
{
    const Holding holding(self);
    auto* watcher = static_cast<DefaultSourceWatcher*>(self);
    watcher->waitExpired_ = true;
    pa_threaded_mainloop_signal(watcher->mainloop_, 0);
}

void DefaultSourceWatcher::contextStateChanged(pa_context*, void* self)
{
    const Holding holding(self);
    pa_threaded_mainloop_signal(static_cast<DefaultSourceWatcher*>(self)->mainloop_, 0);
}

void DefaultSourceWatcher::serverEvent(pa_context*, int type, unsigned, void* self)
{
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER)
        static_cast<DefaultSourceWatcher*>(self)->requestServerInfo();
}
