#include "storage/Diagnostics.h"

#include "storage/DataLocation.h"

#include <QDateTime>
#include <QFile>
#include <QSaveFile>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

namespace {

// One writer thread appends lines in the order they were handed over. It is started on the first
// line and drained when the process exits, so nothing logged before exit is lost.
class Writer {
public:
    Writer() : path_(tolvaneDataDirectory() + QStringLiteral("/diagnostic.log")), thread_([this] { run(); }) {}

    ~Writer()
    {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }

    // The standard-error copy is written by the writer thread too: a caller on the audio thread must
    // not wait on a pipe nobody reads.
    void enqueue(QByteArray line, QByteArray mirror)
    {
        {
            std::lock_guard lock(mutex_);
            pending_.push_back({std::move(line), std::move(mirror)});
            ++queued_;
        }
        wake_.notify_all();
    }

    void flush()
    {
        std::unique_lock lock(mutex_);
        const quint64 target = queued_;
        drained_.wait(lock, [&] { return written_ >= target; });
    }

    const QString& path() const { return path_; }

private:
    void run()
    {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [&] { return stopping_ || !pending_.empty(); });
            if (pending_.empty() && stopping_)
                return;
            std::deque<Entry> batch;
            batch.swap(pending_);
            lock.unlock();
            for (const Entry& entry : batch) {
                write(entry.line);
                if (!entry.mirror.isEmpty()) {
                    std::fwrite(entry.mirror.constData(), 1, static_cast<size_t>(entry.mirror.size()), stderr);
                    std::fflush(stderr);
                }
            }
            lock.lock();
            written_ += batch.size();
            drained_.notify_all();
        }
    }

    void write(const QByteArray& line)
    {
        if (line.isEmpty())
            return;
        // Opened and closed per line so the file can be moved or deleted while Tolvane runs.
        QFile file(path_);
        QString error;
        if (!file.exists()) {
            // Unbuffered: a buffered QSaveFile misses a failure of its last flush and commits anyway.
            QSaveFile first(path_);
            if (!first.open(QIODevice::WriteOnly | QIODevice::Unbuffered) || first.write(line) != line.size() || !first.commit())
                error = first.errorString();
        } else if (!file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered)) {
            error = file.errorString();  // never replaced then: it holds everything logged so far
        } else {
            const qint64 before = file.size();
            if (file.write(line) != line.size()) {
                error = file.errorString();
                file.resize(before);  // a full disk keeps whole lines only: no cut one at the end
            }
            file.close();
        }
        reportFailure(error);
    }

    // A log that cannot be written says so once on standard error, and again only after it worked
    // in between: a full disk must not double every line on the terminal.
    void reportFailure(const QString& error)
    {
        if (error.isEmpty()) {
            failing_ = false;
            return;
        }
        if (std::exchange(failing_, true))
            return;
        const QByteArray notice =
            QStringLiteral("Tolvane: diagnostics: could not write %1 (%2); the log misses lines until it can be written again\n")
                .arg(path_, error)
                .toUtf8();
        std::fwrite(notice.constData(), 1, static_cast<size_t>(notice.size()), stderr);
        std::fflush(stderr);
    }

    const QString path_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable drained_;
    struct Entry {
        QByteArray line;
        QByteArray mirror;
    };
    std::deque<Entry> pending_;
    quint64 queued_ = 0;
    quint64 written_ = 0;
    bool stopping_ = false;
    bool failing_ = false;  // writer thread only
    std::thread thread_;
};

std::atomic<bool> mirrored{true};

Writer& writer()
{
    static Writer instance;
    return instance;
}

}  // namespace

namespace Diagnostics {

QString sourceName(const char* file)
{
    QString name = QString::fromUtf8(file ? file : "");
    const qsizetype slash = name.lastIndexOf(QLatin1Char('/'));
    if (slash >= 0)
        name = name.mid(slash + 1);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot > 0)
        name.truncate(dot);
    return name;
}

void log(const QString& message, const char* file, int line)
{
    try {
        const QString stamp = QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs);
        QString text = stamp + QStringLiteral(" [") + sourceName(file) + QLatin1Char(':') + QString::number(line)
                       + QStringLiteral("] ") + message + QLatin1Char('\n');
        QByteArray mirror;
        if (mirrored.load(std::memory_order_relaxed))
            mirror = (QStringLiteral("Tolvane: ") + message + QLatin1Char('\n')).toUtf8();
        writer().enqueue(text.toUtf8(), std::move(mirror));
    } catch (...) {
        // Logging must never take the caller down.
    }
}

void setMirrored(bool on) { mirrored.store(on, std::memory_order_relaxed); }

QString logFilePath() { return writer().path(); }

void flush() { writer().flush(); }

}  // namespace Diagnostics
