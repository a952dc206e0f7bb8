#pragma once

#include "core/ActivationKey.h"
#include "core/CleanupMode.h"

#include <QByteArray>
#include <QObject>
#include <QSettings>
#include <QStringList>

#include <optional>

// A setting declared once: its key in the store and the value read when the key is absent or holds
// something of the wrong type.
template <typename T>
struct Setting {
    const char* key;
    T fallback;
};

// A whole number kept within bounds: reads and writes are clamped into min..max.
struct BoundedSetting {
    const char* key;
    int fallback;
    int min;
    int max;
};

// Which recognizer transcribes: pocketsphinx on this computer (stored "pocketsphinx", also what an
// absent or unknown value reads as), or a local transcription server ("server").
enum class SpeechEngineKind { pocketsphinx, server };

namespace Settings {
inline const Setting<QString> locale{"locale", QStringLiteral("en-US")};
inline const Setting<bool> historyEnabled{"historyEnabled", true};
inline const Setting<int> historyRetention{"historyRetention", 10};
inline const Setting<bool> showDockIcon{"showDockIcon", true};
inline const Setting<bool> autoReturn{"autoReturn", false};
inline const Setting<bool> liveTyping{"liveTyping", false};
// The local language-model server used for cleanup. An empty endpoint tries the well-known local
// servers; an empty model takes the first one the server lists. Non-loopback endpoints are refused
// unless the user allows them, so nothing leaves the machine by default.
inline const Setting<QString> llmEndpoint{"llmEndpoint", QString()};
inline const Setting<QString> llmModel{"llmModel", QString()};
inline const Setting<bool> llmAllowRemote{"llmAllowRemote", false};
// Extra WM_CLASS names (comma separated) of windows that paste with Ctrl+Shift+V, as terminals do.
inline const Setting<QString> terminalClasses{"terminalClasses", QString()};
// Release feed read by "Check for Updates…".
inline const Setting<QString> updateFeedUrl{"updateFeedUrl", QString()};
// Installable speech models: a JSON array of {"locale", "url", "sha256"} objects.
inline const Setting<QString> speechModelCatalog{"speechModelCatalog", QString()};
// Speech decoder tuning, read when the model is loaded; not in the Settings window. The quiet lead-in
// keeps the first word of someone who speaks as they press the key; a segment longer than
// speechSplitAfterMs ends at the next pause, so its words are final sooner, at the price of a few
// more wrong words (off by default). 0 turns either off; values are clamped to 0..10000.
// speechDecoderPass "flat" finds the words with the decoder's second pass over the whole utterance
// as it ends, as Tolvane did before; anything else, the quicker best path through the first pass's
// lattice.
inline const Setting<int> speechLeadInMs{"speechLeadInMs", 150};
inline const Setting<int> speechSplitAfterMs{"speechSplitAfterMs", 0};
inline const Setting<QString> speechDecoderPass{"speechDecoderPass", QStringLiteral("lattice")};
// The local transcription server used when speechEngine is "server": whisper.cpp's server (an
// endpoint ending in /inference) or an OpenAI-compatible base URL; empty means not configured. An
// empty model lets the server choose. As for cleanup, an endpoint that is not loopback is refused
// unless allowed. A segment's request may take speechRequestTimeoutMs before the dictation falls
// back to pocketsphinx (not in the Settings window; a large model on a slow machine may want more).
inline const Setting<QString> speechEndpoint{"speechEndpoint", QString()};
inline const Setting<QString> speechModel{"speechModel", QString()};
inline const Setting<bool> speechAllowRemote{"speechAllowRemote", false};
inline const BoundedSetting speechRequestTimeoutMs{"speechRequestTimeoutMs", 30000, 1000, 600000};
// The desktop had no tray and the user was told where the menu is instead; told once.
inline const Setting<bool> noTrayExplained{"noTrayExplained", false};
inline constexpr int retentionMin = 1;
inline constexpr int retentionMax = 100;
}  // namespace Settings

// Typed access to the user's settings (~/.config/Tolvane/Tolvane.conf). Nothing is cached: every
// read goes to the store, every write is stored at once. Wrong-typed or unknown values read as the
// default and are never written back.
class Preferences final : public QObject {
    Q_OBJECT
public:
    static Preferences& shared();
    // Settings kept in another file (the same INI format), read at once. The program uses shared()
    // only; tests and fuzz targets read a given file with it.
    explicit Preferences(const QString& filePath, QObject* parent = nullptr);

    QString localeIdentifier() const;
    void setLocaleIdentifier(const QString& identifier);
    bool historyEnabled() const;
    void setHistoryEnabled(bool on);
    int historyRetention() const;
    void setHistoryRetention(int count);
    ActivationKey activationKey() const;
    void setActivationKey(ActivationKey key);
    CleanupMode cleanupMode() const;
    void setCleanupMode(CleanupMode mode);
    bool showDockIcon() const;
    void setShowDockIcon(bool on);
    bool autoReturn() const;
    void setAutoReturn(bool on);
    bool liveTyping() const;
    void setLiveTyping(bool on);
    SpeechEngineKind speechEngine() const;
    void setSpeechEngine(SpeechEngineKind kind);
    // The XDG autostart entry, $XDG_CONFIG_HOME/autostart/tolvane.desktop.
    bool startAtLogin() const;
    void setStartAtLogin(bool on);
    static QString autostartFilePath();

    // Typed reads and writes through a declared setting.
    bool value(const Setting<bool>& setting) const;
    int value(const Setting<int>& setting) const;
    QString value(const Setting<QString>& setting) const;
    int value(const BoundedSetting& setting) const;
    void setValue(const Setting<bool>& setting, bool v);
    void setValue(const Setting<int>& setting, int v);
    void setValue(const Setting<QString>& setting, const QString& v);
    void setValue(const BoundedSetting& setting, int v);

    // Keys owned by other parts of the program (the pill's position, the snippets).
    std::optional<double> doubleValue(const QString& key) const;
    void setDouble(const QString& key, double v);
    std::optional<QByteArray> dataValue(const QString& key) const;
    void setData(const QString& key, const QByteArray& data);
    void remove(const QString& key);

    QString storePath() const;

Q_SIGNALS:
    // "Tolvane.activationKeyChanged": posted on every write of the activation key.
    void activationKeyChanged();
    // "Tolvane.localeChanged": posted when a write changes the locale.
    void localeChanged();

private:
    Preferences();
    void keepDamagedStore();
    QVariant stored(const char* key) const;
    void store(const char* key, const QVariant& v);

    mutable QSettings settings_;
};
