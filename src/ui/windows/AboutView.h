#pragma once

#include <QString>
#include <QWidget>

#include <optional>

// The About window's content: icon, name, version, tagline, a note about the maker with two links,
// and the ownership notice. 380 by 480.
class AboutView final : public QWidget {
    Q_OBJECT
public:
    static constexpr int width = 380;
    static constexpr int height = 480;

    // The maker's details. Placeholders until the product's owner supplies the real ones.
    static const QString makerName;
    static const QString makerDomain;
    static const QString homePageAddress;   // this application's page
    static const QString makerAddress;      // the maker's home page
    static const QString ownershipNotice;

    // displayVersion, when set, is shown as it stands instead of the computed version line.
    explicit AboutView(std::optional<QString> displayVersion = std::nullopt, QWidget* parent = nullptr);

    QString version() const;
    // "Version " + the build's version, or "Version 1.0.5" when the build has none.
    static QString versionLine(std::optional<QString> displayVersion, const QString& buildVersion);
    // Opens an address in the default browser; an address that is no URL does nothing.
    static bool openAddress(const QString& address);

private:
    std::optional<QString> displayVersion_;
};
