#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// The newest release a release feed names. Read from any of: a JSON object with "version" (or
// "tag_name", as release APIs give it) and an optional "url" / "html_url"; a JSON array of such
// objects; an RSS appcast whose items carry sparkle:shortVersionString or sparkle:version; or a
// plain text file holding just the version. Pure: no network.
struct ReleaseFeed {
    QString version;
    QString link;  // where the release is described, when the feed says

    // The newest release in the feed, or nullopt with a readable reason in *error.
    static std::optional<ReleaseFeed> parse(const QByteArray& body, QString* error = nullptr);
    // Orders versions such as "1.0.5", "v1.2", "2.0.0-rc1" (a pre-release sorts before its
    // release): negative, zero or positive.
    static int compareVersions(const QString& a, const QString& b);
    static bool isVersion(const QString& text);
};
