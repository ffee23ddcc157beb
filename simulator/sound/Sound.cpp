#include "Sound.h"

#include "core/Journal.h"

#include <QFile>

namespace {

const char Pactl[] = "/run/product/host/bin/pactl";
const char Fifo[] = "/run/pulse/phone.fifo";
const QStringList Format {"-t", "raw", "-r", "44100", "-c", "2", "-b", "16", "-e", "signed", "-"};
const char BytesPerSecond[] = "176400";

} // namespace

Sound::Sound(Journal &journal, QObject *parent) : QObject(parent), m_journal(journal)
{
    connect(&m_loader, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            &Sound::sourceLoaded);
}

Sound::~Sound()
{
    m_loader.disconnect(this);
    stopFeeding();
}

void Sound::streamChanged(const QString &phone, const QString &devicePath, const QString &audioFile,
                          bool playing)
{
    if (!m_source.isEmpty() && phone != m_phone)
        return;
    const bool wasPlaying = m_playing;
    m_phone = phone;
    m_source = devicePath.isEmpty() ? QString() : "bluez_source." + devicePath.section("/dev_", -1);
    m_audioFile = audioFile;
    m_playing = playing && !m_source.isEmpty();
    if (m_source.isEmpty())
        m_playedMs = 0;
    else if (!m_module.isEmpty() && m_playing != wasPlaying)
        feed();
    update();
}

void Sound::discovered()
{
    m_discovered = true;
    update();
}

void Sound::pulseStopped()
{
    m_discovered = false;
    update();
}

void Sound::update()
{
    const bool wanted = m_discovered && !m_source.isEmpty();
    if (!wanted && !m_module.isEmpty())
        removeSource();
    else if (wanted && m_module.isEmpty() && m_loader.state() == QProcess::NotRunning)
        loadSource();
}

void Sound::loadSource()
{
    // PulseAudio insists on making it.
    QFile::remove(Fifo);
    m_loader.start(Pactl,
                   {"load-module", "module-pipe-source", "source_name=" + m_source,
                    QString("file=") + Fifo, "format=s16le", "rate=44100", "channels=2"});
}

void Sound::sourceLoaded(int exitStatus)
{
    if (exitStatus != 0) {
        m_journal.record("pulse", "output",
                         "no source of " + m_phone + ": "
                             + m_loader.readAllStandardError().trimmed());
        return;
    }
    m_module = m_loader.readAllStandardOutput().trimmed();
    m_journal.record("pulse", "output", m_source + " exists");
    feed();
    emit taken(true);
    update();
}

void Sound::removeSource()
{
    stopFeeding();
    if (m_discovered)
        QProcess::startDetached(Pactl, {"unload-module", m_module});
    m_module.clear();
    m_journal.record("pulse", "output", "the source of " + m_phone + " is gone");
    emit taken(false);
}

/// What the phone plays, or its silence, runs into the source in real time from now on.
void Sound::feed()
{
    stopFeeding();
    // The shell waits for PulseAudio to read, not we.
    m_pace = std::make_unique<QProcess>();
    m_pace->setProgram("sh");
    m_pace->setArguments({"-c", "exec pv -q -L \"$0\" > \"$1\"", BytesPerSecond, Fifo});
    if (m_playing) {
        const QStringList music = m_audioFile.isEmpty() ? QStringList {"-n"} + Format
                + QStringList {"synth", "sine", "440", "sine", "660", "vol", "0.5"}
                                                        : QStringList {m_audioFile} + Format
                + QStringList {"repeat", "-", "trim", QString::number(m_playedMs / 1000.0)};
        m_music = std::make_unique<QProcess>();
        m_music->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_music->setStandardOutputProcess(m_pace.get());
        m_music->start("sox", QStringList {"-D"} + music);
        m_sinceThen.start();
    } else {
        m_pace->setStandardInputFile("/dev/zero");
    }
    m_pace->start();
}

void Sound::stopFeeding()
{
    if (m_music)
        m_playedMs += m_sinceThen.elapsed();
    for (const auto &process : {&m_music, &m_pace}) {
        if (*process) {
            (*process)->kill();
            (*process)->waitForFinished();
        }
        process->reset();
    }
}
