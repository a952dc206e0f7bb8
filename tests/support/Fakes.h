#pragma once

// Fakes of the dictation controller's collaborators. Each records its calls, in order, in one
// shared journal; awaited operations can be held open to test what happens meanwhile.

#include "core/Collaborators.h"

#include <QObject>
#include <QStringList>

struct Journal {
    QStringList calls;
    void add(const QString& call) { calls << call; }
    QStringList take()
    {
        QStringList out;
        out.swap(calls);
        return out;
    }
};

// Holds an awaited operation until released.
class Gate : public QObject {
    Q_OBJECT
public:
    bool closed = false;
    QCoro::Task<> pass();
    void release()
    {
        closed = false;
        Q_EMIT opened();
    }
Q_SIGNALS:
    void opened();
};

class FakeHotkey final : public AbstractHotkeyManager {
public:
    void setActivationKey(ActivationKey k) override { key = k; }
    ActivationKey activationKey() const override { return key; }
    bool start() override
    {
        ++startCalls;
        return startSucceeds;
    }
    void stop() override {}
    ActivationKey key = ActivationKey::leftOption;
    bool startSucceeds = true;
    int startCalls = 0;
};

class FakeAudio final : public AbstractAudioEngine {
public:
    explicit FakeAudio(Journal& j) : journal(j) {}
    void setTargetFormat(std::optional<AudioFormat>) override {}
    void start() override
    {
        journal.add(QStringLiteral("audio.start"));
        if (!failure.isEmpty())
            throw CollaboratorError(failure);
        running = true;
    }
    void stop() override
    {
        journal.add(QStringLiteral("audio.stop"));
        running = false;
    }
    Journal& journal;
    QString failure;
    bool running = false;
};

class FakeInput final : public AudioInputStream {
public:
    void yield(AudioBuffer) override {}
};

class FakeTranscriber final : public AbstractTranscriber {
public:
    explicit FakeTranscriber(Journal& j) : journal(j) {}
    QCoro::Task<void> prepare(QString locale) override;
    std::optional<AudioFormat> analyzerFormat() const override { return format; }
    QCoro::Task<void> start() override;
    std::shared_ptr<AudioInputStream> inputContinuation() const override { return input; }
    QCoro::Task<QString> finish() override;
    QCoro::Task<void> cancel() override;

    Journal& journal;
    Gate startGate, finishGate;
    QString prepareFailure;
    QStringList prepared;  // every locale asked for
    std::optional<AudioFormat> format;
    QString startFailure, finishFailure;
    QString finalText;
    std::shared_ptr<FakeInput> input;
    int openSessions = 0;
};

class FakeOverlay final : public AbstractOverlay {
public:
    explicit FakeOverlay(Journal& j) : journal(j) {}
    void installPersistent() override
    {
        journal.add(QStringLiteral("overlay.installPersistent"));
        installed = true;
    }
    void show() override { journal.add(QStringLiteral("overlay.show")); }
    void setMode(bool toggle) override
    {
        journal.add(QStringLiteral("overlay.setMode(%1)").arg(toggle ? QStringLiteral("true") : QStringLiteral("false")));
        wide = toggle;
    }
    void beginProcessing() override { journal.add(QStringLiteral("overlay.beginProcessing")); }
    void resetToIdle() override
    {
        journal.add(QStringLiteral("overlay.resetToIdle"));
        wide = false;
    }
    void setAmplitude(double level) override { amplitude = level; }
    Journal& journal;
    bool installed = false;
    bool wide = false;
    double amplitude = -1;
};

class FakeMenuBar final : public AbstractMenuBar {
public:
    explicit FakeMenuBar(Journal& j) : journal(j) {}
    bool installed = false;
    void install() override { installed = true; }
    void stopAnimating() override { journal.add(QStringLiteral("menuBar.stopAnimating")); }
    void setAmplitude(double level) override { amplitude = level; }
    bool hasTray() const override { return true; }
    void popUpMenu(const QPoint&) override { journal.add(QStringLiteral("menuBar.popUpMenu")); }
    Journal& journal;
    double amplitude = -1;
};

class FakeSettingsWindow final : public AbstractSettingsWindow {
public:
    void show() override {}
    bool isKeyWindow() const override { return key; }
    bool key = false;
};

class FakeInjector final : public AbstractTextInjector {
public:
    explicit FakeInjector(Journal& j) : journal(j) {}
    bool insertText(const QString& text) override
    {
        journal.add(QStringLiteral("injector.insertText(%1)").arg(text));
        return succeed && !text.isEmpty();
    }
    void deleteBackward(int count) override { journal.add(QStringLiteral("injector.deleteBackward(%1)").arg(count)); }
    bool pasteViaClipboard(const QString& text) override
    {
        journal.add(QStringLiteral("injector.pasteViaClipboard(%1)").arg(text));
        return succeed && !text.isEmpty();
    }
    void pressReturn() override { journal.add(QStringLiteral("injector.pressReturn")); }
    Journal& journal;
    bool succeed = true;
};
