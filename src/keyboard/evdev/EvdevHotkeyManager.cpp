#include "keyboard/evdev/EvdevHotkeyManager.h"

#include "core/Handoff.h"
#include "keyboard/evdev/UinputKeyboard.h"
#include "storage/Diagnostics.h"

#include <QThread>

EvdevHotkeyManager::EvdevHotkeyManager(KeyboardReader::WriterFactory writers, QObject* parent)
    : QObject(parent), writers_(writers ? std::move(writers) : KeyboardReader::WriterFactory(&UinputKeyboard::create))
{
}

EvdevHotkeyManager::~EvdevHotkeyManager() { stop(); }

void EvdevHotkeyManager::setActivationKey(ActivationKey key)
{
    activationKey_ = key;
    if (reader_)
        reader_->setActivationKey(ActivationKeys::evdevCode(key));
}

bool EvdevHotkeyManager::start()
{
    stop();
    thread_ = new QThread(this);
    thread_->setObjectName(QStringLiteral("Tolvane keyboards"));
    reader_ = new KeyboardReader(writers_);
    reader_->setActivationKey(ActivationKeys::evdevCode(activationKey_));
    reader_->moveToThread(thread_);
    connect(reader_, &KeyboardReader::command, this, &EvdevHotkeyManager::onCommand, Qt::QueuedConnection);
    thread_->start();
    bool ok = false;
    Handoff::call(reader_, [reader = reader_, &ok] { ok = reader->open(); });
    if (!ok) {
        stop();
        Diagnostics::log(QStringLiteral("HotkeyManager: tapCreate returned nil — Accessibility not granted yet."));
        return false;
    }
    Diagnostics::log(QStringLiteral("HotkeyManager: event tap installed."));
    return true;
}

void EvdevHotkeyManager::stop()
{
    if (!thread_)
        return;
    // The reader is destroyed in its own thread, where its notifiers live.
    Handoff::call(reader_, [reader = reader_] { delete reader; });
    reader_ = nullptr;
    thread_->quit();
    thread_->wait();
    delete thread_;
    thread_ = nullptr;
}

void EvdevHotkeyManager::onCommand(int keyCommand)
{
    // The callback is read when the job runs, so one set in the meantime is the one called.
    const auto callback = hotkeyCallback(static_cast<KeyCommand>(keyCommand));
    if (!callback)
        return;
    if (const auto& f = this->*callback)
        f();
}
