#pragma once

#include <QString>

// When the X server goes away under Tolvane (the session ended, Xvfb or Xwayland died), Qt says so
// on standard error and ends the process with status 1. This makes that end Tolvane's own: one
// diagnostic line saying why, the history writes still queued on disk first, then status 1.
namespace DisplayLoss {

// Takes over Qt's messages for the rest of the process; every other message goes on as before.
void install();

// Whether a Qt message is the one of a broken display connection.
bool isDisplayLost(const QString& qtMessage);
// The diagnostic line for it.
QString logLine(const QString& qtMessage);

}  // namespace DisplayLoss
