#pragma once

#include <QString>

class QWidget;

// Renders the three Settings panes and the About window, filled with sample data, to PNG files.
// Needs a QApplication (the offscreen platform serves) and nothing else of Tolvane's start-up.
namespace ScreenshotMode {

inline const QString defaultOutputDir = QStringLiteral("marketing");

// Before the QApplication is made: renders offscreen unless a platform was chosen or a display
// answers, so the mode works on machines without any screen.
void preparePlatform();

// Writes settings-general.png, settings-snippets.png, settings-history.png and about.png into
// outputDir, printing one line per file and a final one. Returns the process exit status.
int run(const QString& outputDir);

}  // namespace ScreenshotMode
