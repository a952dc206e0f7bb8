// Handoff::post and Handoff::call run work on the receiver's thread. The values they hand over are
// plain ones, guarded by nothing but the hand-over itself: under ThreadSanitizer a mark missing on
// either way (to the worker, back to the caller, the worker's last touch before the caller frees)
// is a report, which fails the test.
#include "core/Handoff.h"

#include <QTest>

#include <memory>

class HandoffTest : public QObject {
    Q_OBJECT
    QThread thread_;
    QObject* worker_ = nullptr;

private Q_SLOTS:
    void init()
    {
        worker_ = new QObject;
        worker_->moveToThread(&thread_);
        thread_.start();
    }

    void cleanup()
    {
        Handoff::call(worker_, [worker = worker_] { delete worker; });
        thread_.quit();
        thread_.wait();
    }

    void workRunsOnTheReceiversThreadWithWhatWasHandedOver()
    {
        auto sent = std::make_unique<int>(41);  // written here, read and freed there
        int seen = 0;
        QThread* ranOn = nullptr;
        Handoff::post(worker_, [&, value = std::move(sent)] { seen = *value + 1; });
        Handoff::call(worker_, [&] { ranOn = QThread::currentThread(); });
        // The blocking call ran after the queued work, and what both did is visible here.
        QCOMPARE(seen, 42);
        QCOMPARE(ranOn, &thread_);
    }

    void postingToNoReceiverRunsNothing()
    {
        bool ran = false;
        Handoff::post(nullptr, [&] { ran = true; });
        QTest::qWait(50);
        QVERIFY(!ran);
    }
};

QTEST_GUILESS_MAIN(HandoffTest)
#include "HandoffTest.moc"
