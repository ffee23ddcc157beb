#include "Recording.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>

static constexpr std::int64_t FrameSize = 4;

static std::runtime_error systemError(const std::string &path)
{
    return std::runtime_error(path + ": " + std::strerror(errno));
}

Recording::Recording(const std::string &path) : m_path(path)
{
    refresh();
}

void Recording::refresh()
{
    struct stat status;
    m_frames = 0;
    if (stat(m_path.c_str(), &status) == 0)
        m_frames = status.st_size / FrameSize;
    else if (errno != ENOENT)
        throw systemError(m_path);
    readLog();
}

void Recording::readLog()
{
    const std::string path = m_path + ".log";
    std::ifstream log(path);
    if (!log && errno != ENOENT)
        throw systemError(path);

    m_stretches.clear();
    m_underruns.clear();
    m_stopped = true;
    // A last line that is being written waits for the next time.
    for (std::string line; std::getline(log, line) && !log.eof();) {
        long long frame, count;
        double time;
        if (std::sscanf(line.c_str(), "start frame=%lld monotonic=%lf", &frame, &time) == 2) {
            if (!m_stopped)
                m_stretches.back().end = frame;
            m_stretches.push_back({frame, m_frames, time});
            m_stopped = false;
        } else if (std::sscanf(line.c_str(), "stop frame=%lld", &frame) == 1 && !m_stopped) {
            m_stretches.back().end = frame;
            m_stopped = true;
        } else if (std::sscanf(line.c_str(), "underrun frame=%lld frames=%lld", &frame, &count)
                   == 2) {
            m_underruns.push_back({frame, count});
        }
    }
}

std::vector<std::int16_t> Recording::read(std::int64_t first, std::int64_t count) const
{
    std::vector<std::int16_t> samples(std::size_t(2 * count));
    const std::int64_t begin = std::clamp<std::int64_t>(first, 0, m_frames);
    const std::int64_t end = std::clamp<std::int64_t>(first + count, begin, m_frames);
    if (begin == end)
        return samples;
    std::ifstream file(m_path, std::ios::binary);
    file.seekg(begin * FrameSize);
    // The processor's byte order is the file's: the virtual product runs on little-endian machines.
    file.read(reinterpret_cast<char *>(&samples[std::size_t(2 * (begin - first))]),
              (end - begin) * FrameSize);
    if (file.bad() || !file.is_open())
        throw systemError(m_path);
    return samples;
}

std::vector<std::int16_t> Recording::heardBefore(double now, std::int64_t count) const
{
    std::vector<std::int16_t> samples(std::size_t(2 * count));
    for (const Stretch &stretch : m_stretches) {
        // Where in the window the stretch's first frame belongs.
        const std::int64_t offset = count + std::llround((stretch.start - now) * Rate);
        const std::int64_t begin = std::max<std::int64_t>(offset, 0);
        const std::int64_t end = std::min(offset + stretch.end - stretch.first, count);
        if (begin >= end)
            continue;
        const auto part = read(stretch.first + begin - offset, end - begin);
        std::copy(part.begin(), part.end(), samples.begin() + 2 * begin);
    }
    return samples;
}

bool Recording::isPlaying(double now) const
{
    if (m_stopped)
        return false;
    const Stretch &last = m_stretches.back();
    return last.start + double(last.end - last.first) / Rate >= now;
}

std::optional<double> Recording::timeOf(std::int64_t frame) const
{
    for (const Stretch &stretch : m_stretches) {
        if (frame >= stretch.first && frame < stretch.end)
            return stretch.start + double(frame - stretch.first) / Rate;
    }
    return std::nullopt;
}

std::int64_t Recording::lateFrames(std::int64_t first, std::int64_t count) const
{
    std::int64_t late = 0;
    for (const Underrun &underrun : m_underruns) {
        const std::int64_t begin = std::max(first, underrun.first);
        const std::int64_t end = std::min(first + count, underrun.first + underrun.count);
        late += std::max<std::int64_t>(end - begin, 0);
    }
    return late;
}
