#pragma once

#include <QString>

#include <functional>
#include <optional>

struct pa_threaded_mainloop;
struct pa_context;
struct pa_mainloop_api;
struct pa_time_event;
struct timeval;

// Asks the sound server (PulseAudio, or PipeWire's PulseAudio service) which source is its default
// input, and keeps watching so a switch of the default is noticed while capturing. Qt lists the
// inputs but does not say which one the server treats as the default.
//
// The connection is made on first use and made again after the server went away; it never starts a
// server. Every wait on the server is bounded by the given timeout.
class DefaultSourceWatcher {
public:
    DefaultSourceWatcher();
    ~DefaultSourceWatcher();
    DefaultSourceWatcher(const DefaultSourceWatcher&) = delete;
    DefaultSourceWatcher& operator=(const DefaultSourceWatcher&) = delete;

    // The default source's name (e.g. "alsa_input.pci-0000_00_1f.3.analog-stereo"), or none when no
    // server answers within `timeoutMs` or it names no default.
    std::optional<QString> defaultSourceName(int timeoutMs);

    // Called on libpulse's thread when the server's default source changes while connected.
    std::function<void()> onChanged;

private:
    bool connect(int timeoutMs);  // with the main loop locked
    void disconnect();            // with the main loop locked
    bool waitUntil(const std::function<bool()>& done, int timeoutMs);  // with the main loop locked
    void requestServerInfo();     // with the main loop locked

    static void contextStateChanged(pa_context* context, void* self);
    static void deadlinePassed(pa_mainloop_api* api, pa_time_event* event, const struct timeval* time, void* self);
    static void serverEvent(pa_context* context, int type, unsigned index, void* self);

    pa_threaded_mainloop* mainloop_ = nullptr;
    pa_context* context_ = nullptr;
    bool started_ = false;
    std::optional<QString> defaultSource_;  // last answer; guarded by the main loop lock
    int answers_ = 0;                        // server-info answers received; guarded likewise
    bool waitExpired_ = false;               // the wait in progress ran out of time; guarded likewise
};
