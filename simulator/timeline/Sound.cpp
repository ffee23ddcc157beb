#include "Sound.h"

#include "Recording.h"

#include <QByteArray>
#include <QFile>
#include <QJsonArray>

#include <algorithm>
#include <cmath>

namespace {

constexpr std::int64_t ShortestBucket = Recording::Rate / 100;
constexpr std::int64_t MostBuckets = 4000;
/// So many buckets are read at a time.
constexpr std::int64_t BlockBuckets = 64;

/// Takes bucket by bucket and cuts them into stretches.
class Outline
{
public:
    explicit Outline(double bucketSeconds) : m_bucketSeconds(bucketSeconds) { }

    void add(double start, const std::int16_t *frames, std::size_t count)
    {
        if (m_peaks.isEmpty() || std::fabs(start - m_next) > m_bucketSeconds / 2)
            finishStretch(start);
        const auto [low, high] = std::minmax_element(frames, frames + 2 * count);
        m_peaks.append(char(std::lround(*low / 32768.0 * 127)));
        m_peaks.append(char(std::lround(*high / 32768.0 * 127)));
        m_next = start + m_bucketSeconds;
    }

    QJsonArray stretches()
    {
        finishStretch(0);
        return m_stretches;
    }

private:
    void finishStretch(double nextStart)
    {
        if (!m_peaks.isEmpty())
            m_stretches.append(QJsonObject {{"start", m_start},
                                            {"peaks", QString::fromLatin1(m_peaks.toBase64())}});
        m_peaks.clear();
        m_start = nextStart;
    }

    double m_bucketSeconds;
    double m_start = 0;
    double m_next = 0;
    QByteArray m_peaks;
    QJsonArray m_stretches;
};

} // namespace

QJsonObject soundOutline(const QString &path, double origin)
{
    const Recording recording(QFile::encodeName(path).toStdString());
    const std::int64_t frames = recording.frames();
    if (frames == 0)
        return QJsonObject();
    const std::int64_t bucket = std::max(ShortestBucket, (frames + MostBuckets - 1) / MostBuckets);
    const std::int64_t block = bucket * BlockBuckets;

    Outline outline(double(bucket) / Recording::Rate);
    QJsonArray late;
    bool wasLate = false;
    for (std::int64_t first = 0; first < frames; first += block) {
        const std::vector<std::int16_t> samples =
            recording.read(first, std::min(block, frames - first));
        const std::int64_t count = std::int64_t(samples.size()) / 2;
        for (std::int64_t i = 0; i < count; i += bucket) {
            const std::optional<double> time = recording.timeOf(first + i);
            if (!time)
                continue;
            const std::int64_t length = std::min(bucket, count - i);
            outline.add(*time - origin, &samples[std::size_t(2 * i)], std::size_t(length));
            const bool isLate = recording.lateFrames(first + i, length) > 0;
            if (isLate && !wasLate)
                late.append(*time - origin);
            wasLate = isLate;
        }
    }
    return {{"bucket", double(bucket) / Recording::Rate},
            {"stretches", outline.stretches()},
            {"late", late}};
}
