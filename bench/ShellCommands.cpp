#include "ShellCommands.h"

#include "Clock.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// Drops what this process and its children write to a descriptor, for as long as it lives.
class Silence
{
public:
    explicit Silence(int descriptor)
        : m_descriptor(descriptor), m_saved(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1))
    {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, descriptor);
        close(null);
    }

    ~Silence()
    {
        dup2(m_saved, m_descriptor);
        close(m_saved);
    }

private:
    Q_DISABLE_COPY(Silence)

    const int m_descriptor;
    const int m_saved;
};

QByteArray killPipeline(const QByteArray &program)
{
    return "ps | grep " + program + " | grep -v grep | xargs | cut -f1 -d' ' | xargs kill -s 9";
}

} // namespace

QList<QByteArray> killPipelines()
{
    return {killPipeline("/usr/bin/pulseaudio"), killPipeline("/usr/bin/agent"),
            killPipeline("/usr/sbin/bluetoothd")};
}

QList<QByteArray> bringUpCommands()
{
    return {"modprobe btwilink",
            "connmanctl enable bluetooth",
            "hciconfig hci0 up",
            QByteArray("sdptool del $(sdptool browse local | grep -A 1 ")
                + "\"Headset Audio Gateway\" | tail -n 1 | cut -f2 -d':' | tr -d ' ')",
            "hciconfig hci0 sspmode 0",
            "hciconfig hci0 lm master,accept",
            "hciconfig hci0 piscan",
            "hciconfig hci0 sspmode 0"};
}

QList<QByteArray> soundPathCommands(const QByteArray &source)
{
    return {"rm -rf /var/run/pulse/*", "/usr/bin/pactl stat",
            "/usr/bin/pactl load-module module-alsa-sink sink_name=output device=dm-audio",
            "/usr/bin/pactl load-module module-bluetooth-discover",
            "/usr/bin/pactl load-module module-loopback source_dont_move=yes source=" + source
                + " sink=output latency_msec=1000 adjust_time=60 remix=false"};
}

double timeAlone(const QList<QByteArray> &commands)
{
    const Silence output(STDOUT_FILENO);
    const Silence error(STDERR_FILENO);
    const double begin = now();
    for (const QByteArray &command : commands) {
        if (system(command.constData()) == -1)
            break;
    }
    return now() - begin;
}
