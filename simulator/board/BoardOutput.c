/*
 * The board's loudspeaker output, an ALSA playback device without hardware, which runs on
 * CLOCK_MONOTONIC and writes down what the board would play.
 *
 *     pcm_type.board { lib "/absolute/path/libboard-output.so" }
 *     pcm.dm-audio { type board file "/absolute/path/board.raw" }
 *
 * The file takes the frames that were heard: s16le, stereo, 44100 Hz. FILE.log tells when, one line
 * each time:
 *
 *     start frame=N monotonic=SECONDS realtime=SECONDS buffer=FRAMES period=FRAMES
 *     stop frame=N monotonic=SECONDS realtime=SECONDS
 *     underrun frame=N frames=COUNT
 *
 * From a start to the next stop, frame F of the file is heard at the start's time plus
 * (F - N) / 44100 seconds; between a stop and the next start the board is silent, and the file does
 * not grow. What was handed over but not yet heard when the device stops is cut off again. Frames
 * handed over too late to be heard are silence in the file, and an underrun in the log. Only when
 * the playing process is killed does the file end without a stop, with up to one buffer too much.
 */
#define _GNU_SOURCE
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <fcntl.h>
#include <stdint.h>
#include <sys/file.h>
#include <sys/stat.h>
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
    int log;
    int running;
    int64_t startTime; /* CLOCK_MONOTONIC, nanoseconds */
    int64_t firstFrame; /* where in the file the device's frame 0 belongs */
    snd_pcm_uframes_t boundary; /* where the device's positions wrap */
};

static int64_t monotonicTime(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * nanoseconds + now.tv_nsec;
}

/* Frames heard since the start. */
static int64_t heard(const struct Output *output)
{
    if (!output->running)
        return 0;
    const int64_t elapsed = monotonicTime() - output->startTime;
    return elapsed / nanoseconds * Rate + elapsed % nanoseconds * Rate / nanoseconds;
}

static void logClocks(struct Output *output, const char *what, int64_t frame, int64_t monotonic,
                      const char *more)
{
    struct timespec wall;
    clock_gettime(CLOCK_REALTIME, &wall);
    dprintf(output->log, "%s frame=%lld monotonic=%lld.%09lld realtime=%lld.%09ld%s\n", what,
            (long long)frame, (long long)(monotonic / nanoseconds),
            (long long)(monotonic % nanoseconds), (long long)wall.tv_sec, wall.tv_nsec, more);
}

static int setTimer(struct Output *output, int64_t interval)
{
    const struct timespec tick = {interval / nanoseconds, interval % nanoseconds};
    const struct itimerspec setting = {tick, tick};
    return timerfd_settime(output->timer, 0, &setting, NULL) < 0 ? -errno : 0;
}

static int prepareOutput(snd_pcm_ioplug_t *plugin)
{
    struct Output *output = plugin->private_data;
    struct stat status;

    if (fstat(output->file, &status) < 0)
        return -errno;
    output->running = 0;
    output->firstFrame = status.st_size / FrameSize;
    return 0;
}

static int startOutput(snd_pcm_ioplug_t *plugin)
{
    struct Output *output = plugin->private_data;
    char sizes[80];

    output->startTime = monotonicTime();
    output->running = 1;
    snprintf(sizes, sizeof sizes, " buffer=%lu period=%lu", (unsigned long)plugin->buffer_size,
             (unsigned long)plugin->period_size);
    logClocks(output, "start", output->firstFrame, output->startTime, sizes);
    return setTimer(output, (int64_t)plugin->period_size * nanoseconds / Rate);
}

static int stopOutput(snd_pcm_ioplug_t *plugin)
{
    struct Output *output = plugin->private_data;
    const int64_t written = plugin->appl_ptr;
    int64_t end = heard(output);

    if (!output->running)
        return 0;
    if (end > written)
        end = written;
    output->running = 0;
    logClocks(output, "stop", output->firstFrame + end, monotonicTime(), "");
    if (ftruncate(output->file, (output->firstFrame + end) * FrameSize) < 0)
        return -errno;
    return setTimer(output, 0);
}

static snd_pcm_sframes_t outputPosition(snd_pcm_ioplug_t *plugin)
{
    const struct Output *output = plugin->private_data;
    return heard(output) % (int64_t)output->boundary;
}

static int writeAt(int file, const char *bytes, size_t count, off_t place)
{
    while (count > 0) {
        const ssize_t written = pwrite(file, bytes, count, place);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        bytes += written;
        count -= written;
        place += written;
    }
    return 0;
}

/* The player may step back and write the same frames again, so each goes to its own place. */
static snd_pcm_sframes_t takeFrames(snd_pcm_ioplug_t *plugin, const snd_pcm_channel_area_t *areas,
                                    snd_pcm_uframes_t offset, snd_pcm_uframes_t size)
{
    struct Output *output = plugin->private_data;
    const char *frames = (const char *)areas->addr + areas->first / 8 + offset * FrameSize;
    const int64_t position = plugin->appl_ptr;
    const int64_t frame = output->firstFrame + position;
    int64_t late = heard(output) - position;
    int error;

    if (late < 0)
        late = 0;
    if (late > (int64_t)size)
        late = size;
    if (late > 0)
        dprintf(output->log, "underrun frame=%lld frames=%lld\n", (long long)frame,
                (long long)late);
    error = writeAt(output->file, frames + late * FrameSize, (size - late) * FrameSize,
                    (frame + late) * FrameSize);
    /* What was late is left a hole, which reads as silence. */
    if (error == 0 && late == (int64_t)size
        && ftruncate(output->file, (frame + late) * FrameSize) < 0)
        error = -errno;
    return error < 0 ? error : (snd_pcm_sframes_t)size;
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

static void closeDescriptor(int descriptor)
{
    if (descriptor >= 0)
        close(descriptor);
}

static int closeOutput(snd_pcm_ioplug_t *plugin)
{
    struct Output *output = plugin->private_data;
    closeDescriptor(output->timer);
    closeDescriptor(output->file);
    closeDescriptor(output->log);
    free(output);
    return 0;
}

static const snd_pcm_ioplug_callback_t callbacks = {
    .start = startOutput,
    .stop = stopOutput,
    .pointer = outputPosition,
    .transfer = takeFrames,
    .prepare = prepareOutput,
    .sw_params = softwareParameters,
    .poll_revents = pollEvents,
    .close = closeOutput,
};

/* Readable by everybody: the player may run under its own user and a strict umask. */
static int openForWriting(const char *path, int flags)
{
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    if (file < 0) {
        const int error = -errno;
        SNDERR("%s: %s", path, strerror(errno));
        return error;
    }
    (void)fchmod(file, 0644);
    return file;
}

static int openFiles(struct Output *output, const char *path)
{
    char logPath[4096];

    if (snprintf(logPath, sizeof logPath, "%s.log", path) >= (int)sizeof logPath)
        return -ENAMETOOLONG;
    if ((output->file = openForWriting(path, 0)) < 0)
        return output->file;
    /* Like a card: one player at a time. */
    if (flock(output->file, LOCK_EX | LOCK_NB) < 0)
        return -EBUSY;
    if ((output->log = openForWriting(logPath, O_APPEND)) < 0)
        return output->log;
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

/* The "file" of the device's configuration, or null after saying what is wrong with it. */
static const char *configuredFile(const snd_config_t *configuration)
{
    snd_config_iterator_t i, next;
    const char *file = NULL;
    const char *key;

    snd_config_for_each(i, next, configuration)
    {
        const snd_config_t *entry = snd_config_iterator_entry(i);
        if (snd_config_get_id(entry, &key) < 0 || !strcmp(key, "comment") || !strcmp(key, "type")
            || !strcmp(key, "hint"))
            continue;
        if (strcmp(key, "file") != 0 || snd_config_get_string(entry, &file) < 0) {
            SNDERR("Unknown field or value: %s", key);
            return NULL;
        }
    }
    if (!file)
        SNDERR("The field file is missing");
    return file;
}

SND_PCM_PLUGIN_DEFINE_FUNC(board)
{
    const char *file = configuredFile(conf);
    struct Output *output;
    int error;

    (void)root;
    if (!file || stream != SND_PCM_STREAM_PLAYBACK)
        return -EINVAL;
    output = calloc(1, sizeof *output);
    if (!output)
        return -ENOMEM;
    output->timer = output->file = output->log = -1;
    output->plugin.private_data = output;
    if ((error = openFiles(output, file)) < 0) {
        closeOutput(&output->plugin);
        return error;
    }
    output->plugin.version = SND_PCM_IOPLUG_VERSION;
    output->plugin.name = "Virtual board output";
    output->plugin.callback = &callbacks;
    output->plugin.poll_fd = output->timer;
    output->plugin.poll_events = POLLIN;
    /* Positions grow up to the boundary, so that an underrun shows instead of wrapping. */
    output->plugin.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    if ((error = snd_pcm_ioplug_create(&output->plugin, name, stream, mode)) < 0) {
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
