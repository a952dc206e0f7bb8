// The settings file as another program or a damaged disk may leave it: every typed setting, and the
// values other parts keep there (snippets, the model catalogue, the pill's place), read back
// within their bounds or as their defaults.

#include "FuzzSupport.h"
#include "speech/ModelCatalog.h"
#include "storage/Preferences.h"
#include "text/SnippetStore.h"
#include "ui/pill/OverlayPlacement.h"

#include <QDir>
#include <QFile>

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    static const QString folder = FuzzSupport::scratch(QStringLiteral("preferences"));
    const QString path = folder + QStringLiteral("/Tolvane.conf");
    {
        QFile file(path);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(reinterpret_cast<const char*>(data), static_cast<qint64>(size));
    }
    {
        Preferences prefs(path);
        prefs.localeIdentifier();
        prefs.activationKey();
        prefs.cleanupMode();
        prefs.speechEngine();
        const int retention = prefs.historyRetention();
        FUZZ_CHECK(retention >= Settings::retentionMin && retention <= Settings::retentionMax);
        for (const Setting<bool>* s : {&Settings::historyEnabled, &Settings::showDockIcon, &Settings::autoReturn,
                                       &Settings::liveTyping, &Settings::llmAllowRemote, &Settings::speechAllowRemote})
            prefs.value(*s);
        for (const Setting<QString>* s : {&Settings::llmEndpoint, &Settings::llmModel, &Settings::terminalClasses,
                                          &Settings::updateFeedUrl, &Settings::speechEndpoint, &Settings::speechModel})
            prefs.value(*s);
        prefs.value(Settings::speechLeadInMs);
        prefs.value(Settings::speechSplitAfterMs);
        const int timeout = prefs.value(Settings::speechRequestTimeoutMs);
        FUZZ_CHECK(timeout >= Settings::speechRequestTimeoutMs.min && timeout <= Settings::speechRequestTimeoutMs.max);
        // A saved pill place puts the pill where it can be seen, or falls back to the default.
        const QRect screen(0, 0, 1920, 1080);
        const auto origin = OverlayPlacement::initialOrigin(prefs.doubleValue(QStringLiteral("overlayCenterX")),
                                                            prefs.doubleValue(QStringLiteral("overlayTopY")), {screen}, screen);
        FUZZ_CHECK(origin && origin->x() >= -OverlayPlacement::idleWidth - 1 && origin->x() <= screen.right() + 1
                   && origin->y() >= -OverlayPlacement::pillHeight - 1 && origin->y() <= screen.bottom() + 1);
        if (const auto snippets = prefs.dataValue(QStringLiteral("snippets")))
            SnippetStore::decode(*snippets);
        ModelCatalog::parse(prefs.value(Settings::speechModelCatalog));
    }
    // A damaged file leaves a copy beside it each time: start every input afresh.
    QDir(folder).removeRecursively();
    QDir().mkpath(folder);
    return 0;
}
