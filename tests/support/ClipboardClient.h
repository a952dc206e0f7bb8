#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

#include <optional>

// Drives the clipboard client (ClipboardClientApp.cpp), another application on the same X display
// that copies and pastes through the CLIPBOARD as Qt programs do.
class ClipboardClient final : public QObject {
    Q_OBJECT
public:
    ClipboardClient();
    ~ClipboardClient() override;

    bool start();
    // Copies: the clipboard holds these formats and bytes (none: it is cleared).
    bool own(const QMap<QString, QByteArray>& formats);
    // Pastes `type`; nothing when the clipboard does not offer it.
    std::optional<QByteArray> read(const QString& type);
    QStringList formats();
    // When the clipboard's owner changed, as this client saw it (steady_clock, microseconds).
    QList<qint64> changes();

    // A PNG of noise, which does not compress: about 4 bytes per pixel, side × side pixels.
    static QByteArray noisePng(int side);

private:
    std::optional<QByteArray> command(const QByteArray& line, const QByteArray& reply);

    QProcess process_;
    QTemporaryDir dir_;
    QByteArray output_;
};
