#ifndef SAMPLES_H
#define SAMPLES_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

/// Where a phone's sound comes from: an endless run of 16 bit stereo frames at SampleRate.
class Samples
{
public:
    virtual ~Samples() = default;

    /// Writes the next \p count frames (left, right, left ...) to \p frames.
    /// Throws std::runtime_error when there are no more to be had.
    virtual void read(std::int16_t *frames, std::size_t count) = 0;
};

constexpr int SampleRate = 44100;

/**
 * \p name is "tone", 440 Hz on the left and 660 Hz on the right at half of full scale, or a sound
 * file (WAV and whatever else libsndfile reads), which is converted and starts again at its end.
 * A single channel goes to both sides; of more than two the first two are heard. Throws
 * std::runtime_error, with a text for people, when the file cannot be used.
 */
std::unique_ptr<Samples> openSamples(const std::string &name);

#endif
