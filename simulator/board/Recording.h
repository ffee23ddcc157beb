#ifndef RECORDING_H
#define RECORDING_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/**
 * What the board's output wrote down: the raw file (16 bit stereo frames at 44100 Hz) and its log,
 * which tells when each stretch of it was heard. The file may be growing, and need not exist yet.
 */
class Recording
{
public:
    static constexpr int Rate = 44100;

    explicit Recording(const std::string &path);

    /// Looks at both files anew. Throws std::runtime_error when one exists but cannot be read.
    void refresh();

    /// Frames in the file, as of the last refresh; so are all other answers.
    std::int64_t frames() const { return m_frames; }

    /// The \p count frames from \p first on (left, right, left ...); silence outside of the file.
    std::vector<std::int16_t> read(std::int64_t first, std::int64_t count) const;

    /// What came out of the board in the \p count frames before the time \p now (CLOCK_MONOTONIC,
    /// seconds): silence while the output was stopped or its player dead.
    std::vector<std::int16_t> heardBefore(double now, std::int64_t count) const;

    /// Whether the output plays at the time \p now.
    bool isPlaying(double now) const;

    /// When \p frame was heard (CLOCK_MONOTONIC, seconds), if the log knows.
    std::optional<double> timeOf(std::int64_t frame) const;

    /// How many of the \p count frames from \p first on are silent because they came too late.
    std::int64_t lateFrames(std::int64_t first, std::int64_t count) const;

private:
    struct Stretch
    { // heard without a break; the frames from first up to end
        std::int64_t first;
        std::int64_t end;
        double start; // CLOCK_MONOTONIC, seconds
    };
    struct Underrun
    {
        std::int64_t first;
        std::int64_t count;
    };

    void readLog();

    std::string m_path;
    std::int64_t m_frames = 0;
    std::vector<Stretch> m_stretches;
    std::vector<Underrun> m_underruns;
    bool m_stopped = true; // by the log
};

#endif
