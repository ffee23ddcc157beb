#include "Analysis.h"

#include <cmath>
#include <complex>
#include <cstdlib>
#include <utility>

namespace {

constexpr int Rate = 44100;
constexpr std::size_t SegmentFrames = 65536; // a power of two; 1.5 s, so a bin is 0.67 Hz wide
constexpr double LowestTone = 20; // Hz: below, there is no sound
constexpr int SoundThreshold = 100; // of 32768

/// Discrete Fourier transform in place, radix 2.
void transform(std::vector<std::complex<double>> &values)
{
    const std::size_t size = values.size();
    for (std::size_t i = 1, reversed = 0; i < size; ++i) {
        std::size_t bit = size / 2;
        for (; reversed & bit; bit /= 2)
            reversed ^= bit;
        reversed ^= bit;
        if (i < reversed)
            std::swap(values[i], values[reversed]);
    }
    for (std::size_t half = 1; half < size; half *= 2) {
        for (std::size_t k = 0; k < half; ++k) {
            const auto twiddle = std::polar(1.0, -M_PI * double(k) / double(half));
            for (std::size_t i = k; i < size; i += 2 * half) {
                const auto odd = twiddle * values[i + half];
                values[i + half] = values[i] - odd;
                values[i] += odd;
            }
        }
    }
}

/// The strongest bin, and between the bins by a parabola through the logarithms around it.
std::optional<double> strongestTone(const std::vector<double> &spectrum)
{
    const auto lowest = spectrum.begin() + long(std::ceil(LowestTone * SegmentFrames / Rate));
    const auto peak = std::max_element(lowest, spectrum.end() - 1);
    if (*peak <= 0)
        return std::nullopt;
    double offset = 0;
    if (peak[-1] > 0 && peak[1] > 0) {
        const double below = std::log(peak[-1] / *peak);
        const double above = std::log(peak[1] / *peak);
        if (below + above < 0)
            offset = (below - above) / (2 * (below + above));
    }
    return (double(peak - spectrum.begin()) + offset) * Rate / SegmentFrames;
}

} // namespace

Analysis::Analysis()
{
    for (Side &side : m_sides)
        side.segment.reserve(SegmentFrames);
}

void Analysis::add(const std::vector<std::int16_t> &samples)
{
    for (std::size_t i = 0; i + 1 < samples.size(); i += 2, ++m_frames) {
        if (!m_firstSound
            && std::max(std::abs(samples[i]), std::abs(samples[i + 1])) > SoundThreshold)
            m_firstSound = m_frames;
        for (std::size_t channel = 0; channel < 2; ++channel) {
            Side &side = m_sides[channel];
            const double value = samples[i + channel] / 32768.0;
            side.squares += value * value;
            side.segment.push_back(value);
            if (side.segment.size() == SegmentFrames) {
                addSegment(side.segment, side.spectrum);
                side.segment.clear();
            }
        }
    }
}

void Analysis::addSegment(const std::vector<double> &segment, std::vector<double> &spectrum)
{
    std::vector<std::complex<double>> values(SegmentFrames);
    for (std::size_t i = 0; i < segment.size(); ++i) {
        const double hann = 0.5 - 0.5 * std::cos(2 * M_PI * double(i) / double(segment.size()));
        values[i] = segment[i] * hann;
    }
    transform(values);
    spectrum.resize(SegmentFrames / 2);
    for (std::size_t i = 0; i < spectrum.size(); ++i)
        spectrum[i] += std::norm(values[i]);
}

double Analysis::level(const Side &side) const
{
    return 10 * std::log10(side.squares / double(m_frames));
}

Channel Analysis::channel(const Side &side) const
{
    Channel heard;
    heard.silent = side.squares == 0;
    heard.level = level(side);
    if (heard.silent)
        return heard;
    std::vector<double> spectrum = side.spectrum;
    if (spectrum.empty())
        addSegment(side.segment, spectrum); // padded with silence
    heard.frequency = strongestTone(spectrum);
    return heard;
}
