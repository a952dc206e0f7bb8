#pragma once

#include "ui/widgets/Theme.h"

#include <QList>
#include <QString>
#include <QWidget>

#include <optional>

// The About window's content: icon, name, version, tagline, the licence, links to the documents on
// this computer and to the project's web page when the build names one, and the ownership notice.
// 380 by 480.
class AboutView final : public QWidget {
    Q_OBJECT
public:
    static constexpr int width = 380;
    static constexpr int height = 480;

    static const QString ownershipNotice;

    struct Link {
        QString title;
        Theme::Symbol symbol;
        QString address;
        QString objectName;
    };
    // Where the README and the licence may be: a folder and the licence's file name in it.
    struct DocumentFolder {
        QString path;
        QString licenceFile;
    };

    // displayVersion, when set, is shown as it stands instead of the computed version line.
    explicit AboutView(std::optional<QString> displayVersion = std::nullopt, QWidget* parent = nullptr);

    QString version() const;
    // "Version " + the build's version, or "Version 1.0.5" when the build has none.
    static QString versionLine(std::optional<QString> displayVersion, const QString& buildVersion);
    // The installed documents, or the source tree's when this program runs from its build folder.
    static QList<DocumentFolder> documentFolders();
    // The README and licence of the first folder that has both, then the home page when one is set.
    static QList<Link> links(const QString& homepage, const QList<DocumentFolder>& folders);
    // A web address with a host, or a file that exists.
    static bool isOpenableAddress(const QString& address);
    // Opens an address in the default browser; one that would lead nowhere does nothing.
    static bool openAddress(const QString& address);

private:
    std::optional<QString> displayVersion_;
};
