// A file given to --transcribe: read by libsndfile and converted to the recognizer's format by the
// same capture path a dictation uses, whatever its header claims.

#include "FuzzSupport.h"
#include "audio/AudioEngineController.h"
#include "audio/FileSource.h"

#include <QFile>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzSupport::beginInput();
    static const QString path = FuzzSupport::scratch(QStringLiteral("audio")) + QStringLiteral("/input");
    {
        QFile file(path);
        FUZZ_CHECK(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(reinterpret_cast<const char*>(data), static_cast<qint64>(size));
    }
    auto* source = new FileSource(path, FileSource::Pacing::asFastAsPossible);
    AudioEngineController audio{std::unique_ptr<CaptureSource>(source)};
    std::atomic<bool> wrongFormat = false;
    audio.onBuffer = [&wrongFormat](AudioBuffer buffer) {
        if (buffer.format.sampleRate != 16000 || buffer.format.channelCount != 1)
            wrongFormat = true;
    };
    bool finished = false;
    QObject::connect(source, &FileSource::finished, [&finished] { finished = true; });
    try {
        source->inputFormat();
        audio.start();
    } catch (const std::exception&) {
        return 0;  // refused with a reason, as --transcribe reports it
    }
    while (!finished)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    audio.stop();
    FUZZ_CHECK(!wrongFormat);
    return 0;
}
