#pragma once

#include <QObject>
#include <QString>

// What the comparison window shows: one passage in the four cleanup modes, filled as they finish.
class CompareModel final : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString status READ status WRITE setStatus NOTIFY statusChanged)
    Q_PROPERTY(bool armed READ armed WRITE setArmed NOTIFY armedChanged)
    Q_PROPERTY(QString raw READ raw WRITE setRaw NOTIFY rawChanged)
    Q_PROPERTY(QString tidy READ tidy WRITE setTidy NOTIFY tidyChanged)
    Q_PROPERTY(QString bullets READ bullets WRITE setBullets NOTIFY bulletsChanged)
    Q_PROPERTY(QString summary READ summary WRITE setSummary NOTIFY summaryChanged)
public:
    static QString instructionText();

    explicit CompareModel(QObject* parent = nullptr);

    QString status() const { return status_; }
    bool armed() const { return armed_; }
    QString raw() const { return raw_; }
    QString tidy() const { return tidy_; }
    QString bullets() const { return bullets_; }
    QString summary() const { return summary_; }

    void setStatus(const QString& v);
    void setArmed(bool v);
    void setRaw(const QString& v);
    void setTidy(const QString& v);
    void setBullets(const QString& v);
    void setSummary(const QString& v);

    // Back to waiting: armed, instruction shown, results empty.
    void reset();

Q_SIGNALS:
    void statusChanged();
    void armedChanged();
    void rawChanged();
    void tidyChanged();
    void bulletsChanged();
    void summaryChanged();

private:
    QString status_;
    bool armed_ = true;
    QString raw_, tidy_, bullets_, summary_;
};
