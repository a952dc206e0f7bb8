#pragma once

#include "ui/settings/SettingsServices.h"

#include <QWidget>

#include <array>
#include <functional>
#include <optional>

class QVBoxLayout;
class TabPill;

// What fills the Settings window: the header, the General / Snippets / History pills and the
// selected pane, which is made afresh each time its tab is chosen so it re-reads its data.
class SettingsView final : public QWidget {
    Q_OBJECT
public:
    enum class Pane { general, snippets, history };

    static constexpr int width = 560;
    // The content height for a screen whose usable area is that high (none: no screen).
    static int contentHeight(std::optional<int> visibleScreenHeight);
    // The same for the primary screen.
    static int contentHeight();

    SettingsView(std::function<void()> reassert = {}, Pane initialPane = Pane::general,
                 SettingsServices services = {}, QWidget* parent = nullptr);

    Pane pane() const { return pane_; }
    void setPane(Pane pane);
    QWidget* paneWidget() const { return paneWidget_; }
    TabPill* tabPill(Pane pane) const { return pills_[static_cast<size_t>(pane)]; }

    void setReassert(std::function<void()> reassert) { reassert_ = std::move(reassert); }

private:
    void showPane();

    std::function<void()> reassert_;
    SettingsServices services_;
    Pane pane_;
    std::array<TabPill*, 3> pills_{};
    QVBoxLayout* paneHolder_;
    QWidget* paneWidget_ = nullptr;
};
