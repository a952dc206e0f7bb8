#pragma once

#include "speech/AbstractModelInventory.h"

#include <QList>
#include <QSet>
#include <QString>

// The pocketsphinx models on this computer and the ones that can be installed.
//
// A model is installed when its files are present: in <data>/Tolvane/models/<locale>/ (installed by
// Tolvane) or in the system folder, where Debian's pocketsphinx-en-us puts en-US. Installable
// models are listed in the speechModelCatalog setting, a JSON array of
//   {"locale": "de-DE", "url": "https://…/de-de.tar.gz", "sha256": "…"}
// (the url may also be a file:// URL or a plain path). Installing fetches the archive, checks its
// SHA-256, unpacks it beside the target and renames it into place, so an interrupted or failed
// install leaves no half model behind: leftovers carry a dot name and are cleared by the next one.
class ModelInventory final : public AbstractModelInventory {
public:
    struct Folders {
        QString installed;  // where Tolvane installs models
        QString system;     // one subfolder per locale, such as en-us
    };
    static Folders defaultFolders();

    ModelInventory();
    explicit ModelInventory(Folders folders);

    QCoro::Task<QStringList> supportedLocales() override;
    QCoro::Task<ModelStatus> status(QString locale) override;
    QCoro::Task<std::optional<ModelSource>> installationRequest(QString locale) override;
    QCoro::Task<void> downloadAndInstall(ModelSource source) override;
    QCoro::Task<std::shared_ptr<SpeechEngine>> loadEngine(QString locale) override;

    // The folder holding the locale's installed model, preferring Tolvane's own over the system's.
    QString installedModelFolder(const QString& locale) const;
    QStringList installedLocales() const;
    // The catalogue as stored in the settings; a malformed one is logged and reads as empty.
    static QList<ModelSource> catalog();

private:
    QCoro::Task<void> fetch(ModelSource source, QString archivePath);
    void removeLeftovers() const;

    Folders folders_;
    QSet<QString> installing_;  // lower-case locales being installed
};
