#pragma once

#include <QString>

// $XDG_DATA_HOME/Tolvane (or its platform equivalent), created on demand; failures to create it
// are ignored, as the callers swallow file errors anyway.
QString tolvaneDataDirectory();
