#include "storage/Preferences.h"

#include "storage/DataLocation.h"
#include "storage/Diagnostics.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

// QSettings' INI backend hands most values back as strings, so a stored boolean or number is
// accepted both as its own type and as the text the backend writes for it.
std::optional<bool> asBool(const QVariant& v)
{
    if (v.typeId() == QMetaType::Bool)
        return v.toBool();
    if (v.typeId() == QMetaType::QString) {
        const QString s = v.toString();
        if (s == QLatin1String("true"))
            return true;
        if (s == QLatin1String("false"))
            return false;
    }
    return std::nullopt;
}

std::optional<qlonglong> asInteger(const QVariant& v)
{
    switch (v.typeId()) {
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return v.toLongLong();
    case QMetaType::QString: {
        bool ok = false;
        const qlonglong n = v.toString().trimmed().toLongLong(&ok);
        if (ok)
            return n;
        return std::nullopt;
    }
    default:
        return std::nullopt;
    }
}

int clampRetention(qlonglong n)
{
    return static_cast<int>(std::clamp<qlonglong>(n, Settings::retentionMin, Settings::retentionMax));
}

QString desktopEntry()
{
    return QStringLiteral(
               "[Desktop Entry]\n"
               "Type=Application\n"
               "Name=Tolvane\n"
               "Comment=Push-to-talk dictation\n"
               "Exec=\"%1\"\n"
               "Icon=tolvane\n"
               "Terminal=false\n"
               "X-GNOME-Autostart-enabled=true\n")
        .arg(QCoreApplication::applicationFilePath());
}

}  // namespace

Preferences& Preferences::shared()
{
    static Preferences* instance = new Preferences();  // lives until the process ends
    return *instance;
}

Preferences::Preferences() : settings_(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Tolvane"),
                                       QStringLiteral("Tolvane"))
{
    keepDamagedStore();
}

Preferences::Preferences(const QString& filePath, QObject* parent)
    : QObject(parent), settings_(filePath, QSettings::IniFormat)
{
    keepDamagedStore();
}

void Preferences::keepDamagedStore()
{
    // Damaged settings read as the defaults, and the next change replaces the file: keep it.
    if (settings_.status() == QSettings::FormatError) {
        const QString copy = keepDamagedCopy(settings_.fileName());
        Diagnostics::log(QStringLiteral("prefs: %1 cannot be read; using the defaults; ").arg(settings_.fileName())
                         + (copy.isEmpty() ? QStringLiteral("no copy of it could be made")
                                           : QStringLiteral("the file as it was is kept in ") + copy));
    }
}

QString Preferences::storePath() const { return settings_.fileName(); }

QVariant Preferences::stored(const char* key) const
{
    settings_.sync();  // pick up changes made by another process
    return settings_.value(QString::fromLatin1(key));
}

void Preferences::store(const char* key, const QVariant& v)
{
    settings_.setValue(QString::fromLatin1(key), v);
    settings_.sync();
}

bool Preferences::value(const Setting<bool>& s) const { return asBool(stored(s.key)).value_or(s.fallback); }

int Preferences::value(const Setting<int>& s) const
{
    const auto n = asInteger(stored(s.key));
    return n ? static_cast<int>(*n) : s.fallback;
}

QString Preferences::value(const Setting<QString>& s) const
{
    const QVariant v = stored(s.key);
    return v.typeId() == QMetaType::QString ? v.toString() : s.fallback;
}

int Preferences::value(const BoundedSetting& s) const
{
    const auto n = asInteger(stored(s.key));
    return n ? static_cast<int>(std::clamp<qlonglong>(*n, s.min, s.max)) : s.fallback;
}

void Preferences::setValue(const Setting<bool>& s, bool v) { store(s.key, v); }
void Preferences::setValue(const BoundedSetting& s, int v) { store(s.key, std::clamp(v, s.min, s.max)); }
void Preferences::setValue(const Setting<int>& s, int v) { store(s.key, v); }
void Preferences::setValue(const Setting<QString>& s, const QString& v) { store(s.key, v); }

QString Preferences::localeIdentifier() const { return value(Settings::locale); }

void Preferences::setLocaleIdentifier(const QString& identifier)
{
    if (identifier == localeIdentifier())
        return;
    setValue(Settings::locale, identifier);
    Q_EMIT localeChanged();
}

bool Preferences::historyEnabled() const { return value(Settings::historyEnabled); }
void Preferences::setHistoryEnabled(bool on) { setValue(Settings::historyEnabled, on); }

int Preferences::historyRetention() const
{
    const auto n = asInteger(stored(Settings::historyRetention.key));
    return n ? clampRetention(*n) : Settings::historyRetention.fallback;
}

void Preferences::setHistoryRetention(int count) { setValue(Settings::historyRetention, clampRetention(count)); }

ActivationKey Preferences::activationKey() const
{
    const QVariant v = stored("activationKey");
    const QString raw = v.typeId() == QMetaType::QString ? v.toString() : QString();
    return ActivationKeys::fromRawValue(raw).value_or(ActivationKeys::defaultKey);
}

void Preferences::setActivationKey(ActivationKey key)
{
    store("activationKey", ActivationKeys::rawValue(key));
    Q_EMIT activationKeyChanged();
}

CleanupMode Preferences::cleanupMode() const
{
    const QVariant v = stored("cleanupMode");
    const QString raw = v.typeId() == QMetaType::QString ? v.toString() : QString();
    return CleanupModes::fromRawValue(raw).value_or(CleanupModes::defaultMode);
}

void Preferences::setCleanupMode(CleanupMode mode) { store("cleanupMode", CleanupModes::rawValue(mode)); }

bool Preferences::showDockIcon() const { return value(Settings::showDockIcon); }
void Preferences::setShowDockIcon(bool on) { setValue(Settings::showDockIcon, on); }
bool Preferences::autoReturn() const { return value(Settings::autoReturn); }
void Preferences::setAutoReturn(bool on) { setValue(Settings::autoReturn, on); }
bool Preferences::liveTyping() const { return value(Settings::liveTyping); }
void Preferences::setLiveTyping(bool on) { setValue(Settings::liveTyping, on); }

SpeechEngineKind Preferences::speechEngine() const
{
    const QVariant v = stored("speechEngine");
    return v.typeId() == QMetaType::QString && v.toString() == QLatin1String("server") ? SpeechEngineKind::server
                                                                                       : SpeechEngineKind::pocketsphinx;
}

void Preferences::setSpeechEngine(SpeechEngineKind kind)
{
    store("speechEngine", kind == SpeechEngineKind::server ? QStringLiteral("server") : QStringLiteral("pocketsphinx"));
}

std::optional<double> Preferences::doubleValue(const QString& key) const
{
    settings_.sync();
    const QVariant v = settings_.value(key);
    bool ok = false;
    double d = 0;
    if (v.typeId() == QMetaType::Double || v.typeId() == QMetaType::Int || v.typeId() == QMetaType::LongLong)
        return v.toDouble();
    if (v.typeId() == QMetaType::QString) {
        d = v.toString().toDouble(&ok);
        if (ok)
            return d;
    }
    return std::nullopt;
}

void Preferences::setDouble(const QString& key, double v)
{
    settings_.setValue(key, v);
    settings_.sync();
}

std::optional<QByteArray> Preferences::dataValue(const QString& key) const
{
    settings_.sync();
    const QVariant v = settings_.value(key);
    if (v.typeId() == QMetaType::QByteArray)
        return v.toByteArray();
    return std::nullopt;
}

void Preferences::setData(const QString& key, const QByteArray& data)
{
    settings_.setValue(key, data);
    settings_.sync();
}

void Preferences::remove(const QString& key)
{
    settings_.remove(key);
    settings_.sync();
}

QString Preferences::autostartFilePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
           + QStringLiteral("/autostart/tolvane.desktop");
}

bool Preferences::startAtLogin() const
{
    QFile file(autostartFilePath());
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return false;
    // A desktop may switch an entry off without deleting it.
    const QString text = QString::fromUtf8(file.readAll());
    return !text.contains(QLatin1String("\nHidden=true")) &&
           !text.contains(QLatin1String("\nX-GNOME-Autostart-enabled=false"));
}

void Preferences::setStartAtLogin(bool on)
{
    const bool enabled = startAtLogin();
    QString error;
    if (on && !enabled) {
        const QString path = autostartFilePath();
        QDir().mkpath(QFileInfo(path).absolutePath());
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(desktopEntry().toUtf8()) < 0 || !file.commit())
            error = file.errorString();
    } else if (!on && enabled) {
        QFile file(autostartFilePath());
        if (!file.remove())
            error = file.errorString();
    }
    if (!error.isEmpty()) {
        Diagnostics::log(QStringLiteral("prefs: startAtLogin toggle failed: ") + error);
        return;
    }
    Diagnostics::log(QStringLiteral("prefs: startAtLogin = ") + (on ? QStringLiteral("true") : QStringLiteral("false")));
}
