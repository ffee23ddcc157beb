#include "Samples.h"

#include <algorithm>
#include <cmath>
#include <samplerate.h>
#include <sndfile.h>
#include <stdexcept>
#include <vector>

namespace {

class Tone : public Samples
{
public:
    void read(std::int16_t *frames, std::size_t count) override
    {
        for (std::size_t i = 0; i < count; ++i, ++m_frame) {
            frames[2 * i] = sample(440);
            frames[2 * i + 1] = sample(660);
        }
        m_frame %= SampleRate; // whole periods of both: no loss of precision with time
    }

private:
    std::int16_t sample(int frequency) const
    {
        return std::int16_t(
            std::lrint(32767 * 0.5 * std::sin(2 * M_PI * frequency * m_frame / SampleRate)));
    }

    std::size_t m_frame = 0;
};

class SoundFile : public Samples
{
public:
    explicit SoundFile(const std::string &name) : m_name(name)
    {
        m_file.reset(sf_open(name.c_str(), SFM_READ, &m_info));
        if (!m_file)
            fail(sf_strerror(nullptr));
        m_block.resize(std::size_t(BlockFrames) * std::size_t(m_info.channels));
        m_stereo.resize(2 * BlockFrames);
        nextBlock(); // so that a file without sound is refused at once
        sf_seek(m_file.get(), 0, SEEK_SET);
        if (m_info.samplerate != SampleRate) {
            int error = 0;
            m_converter.reset(
                src_callback_new(convertMore, SRC_SINC_MEDIUM_QUALITY, 2, &error, this));
            if (!m_converter || !src_is_valid_ratio(ratio()))
                fail("cannot convert from " + std::to_string(m_info.samplerate) + " Hz");
        }
    }

    void read(std::int16_t *frames, std::size_t count) override
    {
        m_output.resize(2 * count);
        for (std::size_t done = 0; done < count;)
            done += m_converter ? convert(done, count - done) : copy(done, count - done);
        src_float_to_short_array(m_output.data(), frames, int(m_output.size())); // clips
    }

private:
    enum { BlockFrames = 1024 };

    struct CloseFile
    {
        void operator()(SNDFILE *file) const { sf_close(file); }
    };
    struct DeleteConverter
    {
        void operator()(SRC_STATE *converter) const { src_delete(converter); }
    };

    [[noreturn]] void fail(const std::string &why) const
    {
        throw std::runtime_error(m_name + ": " + why);
    }

    double ratio() const { return double(SampleRate) / m_info.samplerate; }

    // Reads into m_stereo; starts again at the file's end. Never 0 frames.
    std::size_t nextBlock()
    {
        sf_count_t count = sf_readf_float(m_file.get(), m_block.data(), BlockFrames);
        if (count <= 0) {
            sf_seek(m_file.get(), 0, SEEK_SET);
            count = sf_readf_float(m_file.get(), m_block.data(), BlockFrames);
        }
        if (count <= 0)
            fail("no sound in it");
        const int right = m_info.channels > 1 ? 1 : 0;
        for (sf_count_t i = 0; i < count; ++i) {
            m_stereo[2 * i] = m_block[i * m_info.channels];
            m_stereo[2 * i + 1] = m_block[i * m_info.channels + right];
        }
        return std::size_t(count);
    }

    std::size_t copy(std::size_t done, std::size_t wanted)
    {
        if (m_used == m_filled) {
            m_filled = nextBlock();
            m_used = 0;
        }
        const std::size_t count = std::min(wanted, m_filled - m_used);
        std::copy_n(&m_stereo[2 * m_used], 2 * count, &m_output[2 * done]);
        m_used += count;
        return count;
    }

    std::size_t convert(std::size_t done, std::size_t wanted)
    {
        const long count =
            src_callback_read(m_converter.get(), ratio(), long(wanted), &m_output[2 * done]);
        if (count <= 0)
            fail(m_problem.empty() ? src_strerror(src_error(m_converter.get())) : m_problem);
        return std::size_t(count);
    }

    // Called from C: what is wrong is kept for convert(), not thrown.
    static long convertMore(void *self, float **data)
    {
        auto *file = static_cast<SoundFile *>(self);
        try {
            *data = file->m_stereo.data();
            return long(file->nextBlock());
        } catch (const std::exception &problem) {
            file->m_problem = problem.what();
            return 0;
        }
    }

    const std::string m_name;
    SF_INFO m_info = {};
    std::unique_ptr<SNDFILE, CloseFile> m_file;
    std::unique_ptr<SRC_STATE, DeleteConverter> m_converter;
    std::vector<float> m_block;
    std::vector<float> m_stereo;
    std::vector<float> m_output;
    std::size_t m_filled = 0;
    std::size_t m_used = 0;
    std::string m_problem;
};

} // namespace

std::unique_ptr<Samples> openSamples(const std::string &name)
{
    if (name == "tone")
        return std::make_unique<Tone>();
    return std::make_unique<SoundFile>(name);
}
