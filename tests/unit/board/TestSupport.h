#ifndef TESTSUPPORT_H
#define TESTSUPPORT_H

#include <QByteArray>
#include <QFile>

#include <cmath>
#include <cstdint>
#include <ctime>
#include <vector>

constexpr int Rate = 44100;

/// \p seconds of a sine on each side; an amplitude of 1 is full scale, a frequency of 0 silence.
inline std::vector<std::int16_t> sines(double left, double right, double amplitude, double seconds)
{
    const auto frames = std::size_t(seconds * Rate);
    std::vector<std::int16_t> samples(2 * frames);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double frequency = i % 2 == 0 ? left : right;
        samples[i] = std::int16_t(
            std::lrint(32767 * amplitude * std::sin(2 * M_PI * frequency * double(i / 2) / Rate)));
    }
    return samples;
}

inline QByteArray bytesOf(const std::vector<std::int16_t> &samples)
{
    return QByteArray(reinterpret_cast<const char *>(samples.data()),
                      int(samples.size() * sizeof samples[0]));
}

inline std::vector<std::int16_t> samplesOf(const QByteArray &bytes)
{
    const auto *samples = reinterpret_cast<const std::int16_t *>(bytes.constData());
    return std::vector<std::int16_t>(samples, samples + bytes.size() / 2);
}

inline bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// CLOCK_MONOTONIC in seconds, as the board's log has it.
inline double monotonicTime()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

#endif
