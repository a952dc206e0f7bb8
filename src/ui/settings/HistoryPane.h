#pragma once

#include "storage/TranscriptStore.h"
#include "ui/settings/SettingsServices.h"

#include <QPointer>
#include <QUuid>
#include <QWidget>

#include <optional>

class QLabel;
class QMessageBox;
class QStackedLayout;
class QToolButton;
class QVBoxLayout;
class ToggleSwitch;

// The third Settings tab: whether transcripts are saved and how many, deleting them all after a
// confirmation, and the saved transcripts newest first with a copy button each.
class HistoryPane final : public QWidget {
    Q_OBJECT
public:
    explicit HistoryPane(SettingsServices services, QWidget* parent = nullptr);

    const QList<TranscriptEntry>& entries() const { return entries_; }
    std::optional<QUuid> copiedID() const { return copiedID_; }
    int retention() const { return retention_; }

    void reload();
    void copy(const TranscriptEntry& entry);
    void setRetention(int count);
    // Opens the confirmation; "Delete All" clears the history.
    void askToClear();

    // The date line of a row: medium date and short time of the user's locale, or the stored text.
    static QString dateText(const QString& timestamp);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void rebuildList();
    void updateSettingsRows();
    void updateCopyMarks();

    SettingsServices services_;
    QList<TranscriptEntry> entries_;
    std::optional<QUuid> copiedID_;
    bool historyEnabled_;
    int retention_;

    ToggleSwitch* enabledSwitch_;
    QLabel* enabledCaption_;
    QWidget* stepper_;
    QLabel* retentionValue_;
    QLabel* header_;
    QStackedLayout* stack_;
    QVBoxLayout* rowsLayout_;
    QList<QToolButton*> copyButtons_;
    QPointer<QMessageBox> confirm_;
};
