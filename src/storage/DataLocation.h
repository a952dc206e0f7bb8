#pragma once

#include <QString>

// $XDG_DATA_HOME/Tolvane (or its platform equivalent), created on demand; failures to create it
// are ignored, as the callers swallow file errors anyway.
QString tolvaneDataDirectory();

// Copies a file Tolvane could not read whole to "<path>.damaged-<digest of its contents>" beside it,
// so that the next write, which replaces the file, loses nothing of it; the same damage read again
// makes no second copy. The copy's path, or empty when none could be made.
QString keepDamagedCopy(const QString& path);
