#ifndef ANALYSIS_H
#define ANALYSIS_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

/// What one channel sounds like.
struct Channel
{
    bool silent = true; ///< every sample is exactly 0
    double level; ///< RMS in dB of full scale (a full sine has -3.01); -infinity when silent
    std::optional<double> frequency; ///< of the strongest tone, in Hz; none in silence
};

/// Listens to 16 bit stereo frames as they come, at 44100 Hz.
class Analysis
{
public:
    Analysis();

    /// Takes more frames (left, right, left ...).
    void add(const std::vector<std::int16_t> &samples);

    /// RMS in dB of the louder and of the quieter side; unlike the whole of a channel, for nothing.
    double loudest() const { return std::max(level(m_sides[0]), level(m_sides[1])); }
    double quietest() const { return std::min(level(m_sides[0]), level(m_sides[1])); }

    /// What was heard so far. A frequency is good to a fraction of a Hz from half a second on.
    Channel left() const { return channel(m_sides[0]); }
    Channel right() const { return channel(m_sides[1]); }

    /// The first frame, counted from 0, in which a channel is louder than about -50 dB.
    std::optional<std::int64_t> firstSound() const { return m_firstSound; }

private:
    struct Side
    {
        double squares = 0; // of all samples, full scale being 1
        std::vector<double> segment; // not yet in the spectrum
        std::vector<double> spectrum; // summed power per bin; empty before the first whole segment
    };

    static void addSegment(const std::vector<double> &segment, std::vector<double> &spectrum);
    double level(const Side &side) const;
    Channel channel(const Side &side) const;

    Side m_sides[2];
    std::int64_t m_frames = 0;
    std::optional<std::int64_t> m_firstSound;
};

#endif
