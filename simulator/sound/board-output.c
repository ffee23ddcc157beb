/*
 * The board's loudspeaker output: an ALSA playback device without hardware, which runs on
 * CLOCK_MONOTONIC and writes down what the board would play.
 *
 *     pcm_type.board { lib "/absolute/path/libboard-output.so" }
 *     pcm.dm-audio { type board file "/absolute/path/board.raw" start 1234.5 }
 *
 * The file, which is there already, takes what was heard: s16le, stereo, 44100 Hz. Its frame F was
 * heard F / 44100 seconds after the start, which is told in seconds of CLOCK_MONOTONIC. While the
 * device stands still the file has holes, which read as the silence that was heard, and so do
 * frames that the player hands over too late.
 */
#define _GNU_SOURCE
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/file.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

enum { Rate = 44100, Channels = 2, FrameSize = 2 * Channels };

static const int64_t nanoseconds = 1000000000;

struct Output
{
    snd_pcm_ioplug_t plugin;
    int timer; /* a tick per period: the poll descriptor */
    int file;
    int64_t fileTime; /* of the file's first frame: CLOCK_MONOTONIC, nanoseconds */
    int64_t startTime; /* of the device; 0 while it stands still */
    int64_t firstFrame; /* where in the file the device's frame 0 belongs */
    snd_pcm_uframes_t boundary; /* where the device's positions wrap */
};

static int64_t monotonicTime(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * nanoseconds + now.tv_nsec;
}

static int64_t framesSince(int64_t time)
{
    const int64_t elapsed = monotonicTime() - time;
    return elapsed / nanoseconds * Rate + elapsed % nanoseconds * Rate / nanoseconds;
}

/* Frames heard since the start. */
static int64_t heard(const struct Output *output)
{
    return output->startTime ? framesSince(output->startTime) : 0;
}

static int setTimer(struct Output *output, int64_t interval)
{
    const struct timespec tick = {interval / nanoseconds, interval % nanoseconds};
    const struct itimerspec setting = {tick, tick};
    return timerfd_settime(output->timer, 0, &setting, NULL) < 0 ? -errno : 0;
}

static int startOutput(snd_pcm_ioplug_t *plugin)
{
    struct Output *output = plugin->private_data;
    output->startTime = monotonicTime();
    return setTimer(output, (int64_t)plugin->period_size * nanoseconds / Rate);
}

/* What was handed over but not heard yet is cut off again. Also called before each start. */
static int stopOutput(snd_pcm_ioplug_t *plugin)
{
    struct Output *output = plugin->private_data;
    const int64_t end = heard(output);
    if (!output->startTime)
        return 0;
    output->startTime = 0;
    if (end < (int64_t)plugin->appl_ptr
        && ftruncate(output->file, (output->firstFrame + end) * FrameSize) < 0)
        return -errno;
    return setTimer(output, 0);
}

static snd_pcm_sframes_t outputPosition(snd_pcm_ioplug_t *plugin)
{
    const struct Output *output = plugin->private_data;
    return heard(output) % (int64_t)output->boundary;
}

/* The player may step back and write the same frames again, so each goes to its own place. */
static snd_pcm_sframes_t takeFrames(snd_pcm_ioplug_t *plugin, const snd_pcm_channel_area_t *areas,
                                    snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    struct Output *output = plugin->private_data;
    const char *frames = (const char *)areas->addr + areas->first / 8 + offset * FrameSize;
    const int64_t position = plugin->appl_ptr;
    int64_t late = heard(output) - position;

    /* The first frames are handed over just before the start. */
    if (!output->startTime && position == 0)
        output->firstFrame = framesSince(output->fileTime);
    for (late = late < 0 ? 0 : late; late < (int64_t)size;) {
        const int64_t place = (output->firstFrame + position + late) * FrameSize;
        const ssize_t written =
            pwrite(output->file, frames + late * FrameSize, (size - late) * FrameSize, place);
        if (written < 0 && errno != EINTR)
            return -errno;
        if (written > 0)
            late += written / FrameSize;
    }
    return size;
}

static int softwareParameters(snd_pcm_ioplug_t *plugin, snd_pcm_sw_params_t *parameters)
{
    struct Output *output = plugin->private_data;
    const int error = snd_pcm_sw_params_get_boundary(parameters, &output->boundary);
    if (error < 0)
        return error;
    /* PulseAudio compares our time stamps with CLOCK_MONOTONIC; with ALSA's default, the wall
     * clock, the latency reads 0. */
    return snd_pcm_sw_params_set_tstamp_type(plugin->pcm, parameters,
                                             SND_PCM_TSTAMP_TYPE_MONOTONIC);
}

static int pollEvents(snd_pcm_ioplug_t *plugin, struct pollfd *descriptors, unsigned int count,
                      unsigned short *events)
{
    struct Output *output = plugin->private_data;
    uint64_t ticks;

    *events = 0;
    if (count > 0 && (descriptors[0].revents & POLLIN)
        && read(output->timer, &ticks, sizeof ticks) == sizeof ticks)
        *events = POLLOUT;
    return 0;
}

static int closeOutput(snd_pcm_ioplug_t *plugin)
{
    struct Output *output = plugin->private_data;
    if (output->timer >= 0)
        close(output->timer);
    if (output->file >= 0)
        close(output->file);
    free(output);
    return 0;
}

static const snd_pcm_ioplug_callback_t callbacks = {
    .start = startOutput,
    .stop = stopOutput,
    .pointer = outputPosition,
    .transfer = takeFrames,
    .prepare = stopOutput,
    .sw_params = softwareParameters,
    .poll_revents = pollEvents,
    .close = closeOutput,
};

static int openFiles(struct Output *output, const char *path)
{
    if ((output->file = open(path, O_RDWR | O_CLOEXEC)) < 0)
        return -errno;
    /* Like a card: one player at a time. */
    if (flock(output->file, LOCK_EX | LOCK_NB) < 0)
        return -EBUSY;
    output->timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    return output->timer < 0 ? -errno : 0;
}

static int setConstraints(snd_pcm_ioplug_t *plugin)
{
    static const unsigned int accesses[] = {SND_PCM_ACCESS_RW_INTERLEAVED,
                                            SND_PCM_ACCESS_MMAP_INTERLEAVED};
    static const unsigned int format = SND_PCM_FORMAT_S16_LE;
    static const struct
    {
        int parameter;
        unsigned int least, most;
    } ranges[] = {
        {SND_PCM_IOPLUG_HW_CHANNELS, Channels, Channels},
        {SND_PCM_IOPLUG_HW_RATE, Rate, Rate},
        {SND_PCM_IOPLUG_HW_PERIOD_BYTES, 256, 1 << 18},
        {SND_PCM_IOPLUG_HW_BUFFER_BYTES, 1024, 1 << 20},
        {SND_PCM_IOPLUG_HW_PERIODS, 2, 64},
    };
    int error = snd_pcm_ioplug_set_param_list(plugin, SND_PCM_IOPLUG_HW_ACCESS, 2, accesses);
    if (error == 0)
        error = snd_pcm_ioplug_set_param_list(plugin, SND_PCM_IOPLUG_HW_FORMAT, 1, &format);
    for (size_t i = 0; error == 0 && i < sizeof ranges / sizeof *ranges; ++i)
        error = snd_pcm_ioplug_set_param_minmax(plugin, ranges[i].parameter, ranges[i].least,
                                                ranges[i].most);
    return error;
}

SND_PCM_PLUGIN_DEFINE_FUNC(board)
{
    snd_config_t *entry;
    const char *file;
    double start;
    struct Output *output;
    int error;

    (void)root;
    if (stream != SND_PCM_STREAM_PLAYBACK || snd_config_search(conf, "file", &entry) < 0
        || snd_config_get_string(entry, &file) < 0 || snd_config_search(conf, "start", &entry) < 0
        || snd_config_get_ireal(entry, &start) < 0) {
        SNDERR("%s is for playing, into its configuration's \"file\" from its \"start\" on", name);
        return -EINVAL;
    }
    output = calloc(1, sizeof *output);
    if (!output)
        return -ENOMEM;
    output->timer = output->file = -1;
    output->fileTime = (int64_t)(start * nanoseconds);
    output->plugin.version = SND_PCM_IOPLUG_VERSION;
    output->plugin.name = "Virtual board output";
    output->plugin.callback = &callbacks;
    output->plugin.private_data = output;
    /* Positions grow up to the boundary, so that an underrun shows instead of wrapping. */
    output->plugin.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    error = openFiles(output, file);
    output->plugin.poll_fd = output->timer;
    output->plugin.poll_events = POLLIN;
    if (error == 0)
        error = snd_pcm_ioplug_create(&output->plugin, name, stream, mode);
    if (error < 0) {
        closeOutput(&output->plugin);
        return error;
    }
    if ((error = setConstraints(&output->plugin)) < 0) {
        snd_pcm_ioplug_delete(&output->plugin); /* closes the output, too */
        return error;
    }
    *pcmp = output->plugin.pcm;
    return 0;
}
SND_PCM_PLUGIN_SYMBOL(board);
