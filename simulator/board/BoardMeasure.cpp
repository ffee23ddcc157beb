/*
 * board-measure: what the board played, measured in the file its output writes.
 * See usageText for the options. A window's frames are measured as they stand in the file; the
 * waits look at what was heard in the half second up to now, where an output that has stopped is
 * silent.
 */
#include "Analysis.h"
#include "Recording.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <fstream>
#include <getopt.h>
#include <stdexcept>
#include <thread>

namespace {

const char usageText[] =
    R"(usage: board-measure RAW [--from SECONDS] [--length SECONDS] [OPTION...]
       board-measure RAW --wait-level DB [--tolerance DB] [--timeout SECONDS] [OPTION...]
       board-measure RAW --wait-silence [--timeout SECONDS] [OPTION...]

Tells the strongest frequency, the level and the first sound of each channel in a window of RAW,
the file that the board's output writes: from SECONDS after its beginning, or, with a negative
number, before its end; the whole file by default.

  --wait-level DB   wait until both channels of the last half second have this RMS level
  --tolerance DB    and what it may be off, 0.3 by default
  --wait-silence    wait until the last half second is exactly silent
  --timeout SECONDS give up after this time (10 by default), with exit status 1
  --wav FILE        write what was measured to a WAV file
  --json            tell it as one JSON object
)";

constexpr std::int64_t WaitedFrames = Recording::Rate / 2;
constexpr std::int64_t BlockFrames = 1 << 16;

struct Options
{
    std::string raw;
    double from = 0;
    std::optional<double> length;
    std::optional<double> waitLevel;
    bool waitSilence = false;
    double tolerance = 0.3;
    double timeout = 10;
    std::string wav;
    bool json = false;
};

/// What was measured: where, and what it sounded like.
struct Measurement
{
    Analysis analysis;
    std::int64_t frames = 0;
    std::optional<std::int64_t> first; // in the file; none for the last half second up to now
    std::int64_t lateFrames = 0;
    bool playing = false;
};

struct UsageError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

double number(const char *option, const char *text)
{
    char *end;
    const double value = std::strtod(text, &end);
    if (end == text || *end || !std::isfinite(value))
        throw UsageError(std::string("--") + option + ": not a number: " + text);
    return value;
}

Options parse(int argc, char **argv)
{
    enum { From, Length, WaitLevel, Tolerance, WaitSilence, Timeout, Wav, Json };
    static const option known[] = {{"from", required_argument, nullptr, From},
                                   {"length", required_argument, nullptr, Length},
                                   {"wait-level", required_argument, nullptr, WaitLevel},
                                   {"tolerance", required_argument, nullptr, Tolerance},
                                   {"wait-silence", no_argument, nullptr, WaitSilence},
                                   {"timeout", required_argument, nullptr, Timeout},
                                   {"wav", required_argument, nullptr, Wav},
                                   {"json", no_argument, nullptr, Json},
                                   {nullptr, 0, nullptr, 0}};
    Options options;
    int index;
    for (int which; (which = getopt_long(argc, argv, "", known, &index)) >= 0;) {
        const auto value = [&] { return number(known[index].name, optarg); };
        switch (which) {
        case From:
            options.from = value();
            break;
        case Length:
            options.length = value();
            break;
        case WaitLevel:
            options.waitLevel = value();
            break;
        case Tolerance:
            options.tolerance = value();
            break;
        case WaitSilence:
            options.waitSilence = true;
            break;
        case Timeout:
            options.timeout = value();
            break;
        case Wav:
            options.wav = optarg;
            break;
        case Json:
            options.json = true;
            break;
        default:
            throw UsageError("");
        }
    }
    if (optind != argc - 1)
        throw UsageError("exactly one RAW is needed");
    if (options.waitSilence && options.waitLevel)
        throw UsageError("either a level or silence can be waited for");
    options.raw = argv[optind];
    return options;
}

double monotonicTime()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

/// A WAV file, 16 bit stereo, that takes \p frames frames.
class WavFile
{
public:
    WavFile(const std::string &path, std::int64_t frames)
        : m_path(path), m_file(path, std::ios::binary)
    {
        const std::uint32_t bytes = std::uint32_t(frames * 4);
        m_file.write("RIFF", 4);
        put(36 + bytes, 4);
        m_file.write("WAVEfmt ", 8);
        put(16, 4); // of the format
        put(1, 2); // PCM
        put(2, 2); // channels
        put(Recording::Rate, 4);
        put(Recording::Rate * 4, 4); // bytes per second
        put(4, 2); // bytes per frame
        put(16, 2); // bits per sample
        m_file.write("data", 4);
        put(bytes, 4);
    }

    void add(const std::vector<std::int16_t> &samples)
    {
        m_file.write(reinterpret_cast<const char *>(samples.data()),
                     std::streamsize(samples.size() * sizeof samples[0]));
    }

    void close()
    {
        m_file.close();
        if (!m_file)
            throw std::runtime_error(m_path + ": cannot be written");
    }

private:
    void put(std::uint32_t value, int bytes) // little-endian
    {
        for (; bytes > 0; --bytes, value >>= 8)
            m_file.put(char(value & 0xff));
    }

    std::string m_path;
    std::ofstream m_file;
};

Measurement measureWindow(const Recording &recording, const Options &options)
{
    if (recording.frames() == 0)
        throw std::runtime_error(options.raw + ": nothing recorded");
    std::int64_t first = std::llround(options.from * Recording::Rate);
    if (first < 0)
        first = std::max<std::int64_t>(recording.frames() + first, 0);
    std::int64_t frames = recording.frames() - first;
    if (options.length)
        frames = std::min<std::int64_t>(frames, std::llround(*options.length * Recording::Rate));
    if (frames <= 0)
        throw std::runtime_error(options.raw + ": nothing recorded in this window");

    Measurement measurement;
    measurement.first = first;
    measurement.frames = frames;
    measurement.lateFrames = recording.lateFrames(first, frames);
    measurement.playing = recording.isPlaying(monotonicTime());
    std::optional<WavFile> wav;
    if (!options.wav.empty())
        wav.emplace(options.wav, frames);
    for (std::int64_t done = 0; done < frames; done += BlockFrames) {
        const auto block = recording.read(first + done, std::min(BlockFrames, frames - done));
        measurement.analysis.add(block);
        if (wav)
            wav->add(block);
    }
    if (wav)
        wav->close();
    return measurement;
}

/// Each half of the window counts, or else a tone that has just begun would pass for a quiet one.
bool isAsWaitedFor(const std::vector<std::int16_t> &window, const Options &options)
{
    const auto middle = window.begin() + WaitedFrames; // a frame is two samples
    for (const auto &half : {std::vector<std::int16_t>(window.begin(), middle),
                             std::vector<std::int16_t>(middle, window.end())}) {
        Analysis analysis;
        analysis.add(half);
        if (options.waitSilence ? std::isfinite(analysis.loudest())
                                : analysis.loudest() > *options.waitLevel + options.tolerance
                    || analysis.quietest() < *options.waitLevel - options.tolerance)
            return false;
    }
    return true;
}

/// The last half second when it is as waited for, or else when time is up; \p found says which.
Measurement waitFor(Recording &recording, const Options &options, bool &found)
{
    const double end = monotonicTime() + options.timeout;
    for (;;) {
        const double now = monotonicTime();
        recording.refresh();
        const auto window = recording.heardBefore(now, WaitedFrames);
        found = isAsWaitedFor(window, options);
        if (!found && now < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        Measurement measurement;
        measurement.analysis.add(window);
        measurement.frames = WaitedFrames;
        measurement.playing = recording.isPlaying(now);
        if (!options.wav.empty()) {
            WavFile wav(options.wav, WaitedFrames);
            wav.add(window);
            wav.close();
        }
        return measurement;
    }
}

void tellChannel(const char *name, const Channel &channel)
{
    if (channel.silent)
        std::printf("  %-6s silence\n", name);
    else if (channel.frequency)
        std::printf("  %-6s %8.1f Hz %8.2f dB\n", name, *channel.frequency, channel.level);
    else
        std::printf("  %-6s no tone     %8.2f dB\n", name, channel.level);
}

void tell(const Measurement &measurement)
{
    const double length = double(measurement.frames) / Recording::Rate;
    if (measurement.first)
        std::printf("%.2f s from %.2f s on:\n", length,
                    double(*measurement.first) / Recording::Rate);
    else
        std::printf("the last %.1f s, the output %s:\n", length,
                    measurement.playing ? "playing" : "stopped");
    tellChannel("left", measurement.analysis.left());
    tellChannel("right", measurement.analysis.right());
    if (const auto sound = measurement.analysis.firstSound(); sound && measurement.first)
        std::printf("  first sound at %.3f s\n",
                    double(*measurement.first + *sound) / Recording::Rate);
    if (measurement.lateFrames > 0)
        std::printf("  %.0f ms of it lost: the player came too late\n",
                    double(measurement.lateFrames) * 1000 / Recording::Rate);
}

std::string jsonNumber(std::optional<double> value, int decimals)
{
    char text[64] = "null";
    if (value && std::isfinite(*value))
        std::snprintf(text, sizeof text, "%.*f", decimals, *value);
    return text;
}

void tellJsonChannel(const char *name, const Channel &channel)
{
    std::printf("\"%s\":{\"silent\":%s,\"level\":%s,\"frequency\":%s},", name,
                channel.silent ? "true" : "false", jsonNumber(channel.level, 2).c_str(),
                jsonNumber(channel.frequency, 2).c_str());
}

/// Times are seconds: "from" and "firstSound" since the file's beginning, "firstSoundTime" by
/// CLOCK_MONOTONIC. What does not exist is null; so is the level of silence.
void tellJson(const Measurement &measurement, const Recording &recording)
{
    std::optional<double> from, sound, soundTime;
    if (measurement.first) {
        from = double(*measurement.first) / Recording::Rate;
        if (const auto frame = measurement.analysis.firstSound()) {
            sound = *from + double(*frame) / Recording::Rate;
            soundTime = recording.timeOf(*measurement.first + *frame);
        }
    }
    std::printf("{\"from\":%s,\"length\":%s,", jsonNumber(from, 6).c_str(),
                jsonNumber(double(measurement.frames) / Recording::Rate, 6).c_str());
    tellJsonChannel("left", measurement.analysis.left());
    tellJsonChannel("right", measurement.analysis.right());
    std::printf("\"firstSound\":%s,\"firstSoundTime\":%s,\"lateFrames\":%lld,\"playing\":%s}\n",
                jsonNumber(sound, 6).c_str(), jsonNumber(soundTime, 6).c_str(),
                static_cast<long long>(measurement.lateFrames),
                measurement.playing ? "true" : "false");
}

int measure(const Options &options)
{
    Recording recording(options.raw);
    bool found = true;
    const Measurement measurement = options.waitLevel || options.waitSilence
        ? waitFor(recording, options, found)
        : measureWindow(recording, options);
    if (options.json)
        tellJson(measurement, recording);
    else
        tell(measurement);
    if (!found)
        std::fprintf(stderr, "board-measure: not heard within %g s\n", options.timeout);
    return found ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return measure(parse(argc, argv));
    } catch (const UsageError &error) {
        std::fprintf(stderr, "%s%s%s", error.what(), *error.what() ? "\n" : "", usageText);
        return 2;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "board-measure: %s\n", error.what());
        return 1;
    }
}
