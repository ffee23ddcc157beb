#include "SoundPath.h"

#include <QFile>
#include <QFileInfo>
#include <QFileSystemWatcher>

namespace {

const char Pactl[] = "/run/product/host/bin/pactl";

QString markFile()
{
    return qEnvironmentVariable("PRODUCT_DISCOVER_MARK");
}

} // namespace

SoundPath::SoundPath(bool realPulse, const QString &build, QObject *parent)
    : QObject(parent), m_real(realPulse), m_build(build)
{
    if (!m_real)
        return;
    m_marks = new QFileSystemWatcher({QFileInfo(markFile()).path()}, this);
    connect(m_marks, &QFileSystemWatcher::directoryChanged, this, &SoundPath::discoveryLoaded);
    connect(&m_loader, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), this,
            &SoundPath::sourceLoaded);
}

QString SoundPath::sourceName() const
{
    return "bluez_source." + QString(m_address).replace(':', '_');
}

void SoundPath::phoneEvent(const QJsonObject &event)
{
    const QString state = event.value("state").toString();
    if (state == "stream-open") {
        m_streamOpen = true;
        m_playing = false;
        m_address = event.value("address").toString();
        m_audio = event.value("audio").toString();
    } else if (state == "playing" || state == "paused") {
        m_playing = state == "playing";
        setFeederPlaying(m_playing);
    } else if (state == "stream-closed") {
        m_streamOpen = false;
        m_playing = false;
        m_loopback = false;
        if (!m_real)
            setTaken(false);
    }
    updateSource();
}

void SoundPath::setServerReady(bool ready)
{
    m_serverReady = ready;
    if (ready)
        return;
    m_loopback = false;
    m_discovery = false;
    if (m_source == Source::Loaded) {
        // The server has taken the source along.
        m_source = Source::None;
        removeSource();
    }
    setTaken(false);
}

QJsonObject SoundPath::pactlAnswer(const QStringList &arguments)
{
    const QJsonObject success {{"behaviour", "normal"}, {"status", 0}};
    const QJsonObject failure {{"behaviour", "normal"}, {"status", 1}};
    const QString command = arguments.value(0);
    if (!m_serverReady)
        return failure;
    if (command == "load-module") {
        if (arguments.value(1) == "module-loopback") {
            if (!loopbackFits(arguments))
                return failure;
            m_loopback = true;
            setTaken(true);
        }
        return {{"behaviour", "normal"},
                {"status", 0},
                {"output", QString::number(m_nextModule++) + '\n'}};
    }
    if (command.startsWith("set-source-output-"))
        return m_loopback ? success : failure;
    return success;
}

bool SoundPath::loopbackFits(const QStringList &arguments) const
{
    return m_streamOpen && arguments.contains("source=" + sourceName());
}

void SoundPath::setTaken(bool taken)
{
    if (taken == m_taken)
        return;
    m_taken = taken;
    emit takenChanged(taken);
}

void SoundPath::discoveryLoaded()
{
    // Each start of the server makes the mark anew.
    if (!QFile::remove(markFile()))
        return;
    m_discovery = true;
    updateSource();
}

void SoundPath::updateSource()
{
    const bool wanted = m_real && m_discovery && m_streamOpen;
    if (wanted && m_source == Source::None)
        loadSource();
    else if (!wanted && m_source == Source::Loaded)
        removeSource();
}

void SoundPath::loadSource()
{
    m_source = Source::Loading;
    m_fifo = "/run/pulse/" + sourceName() + ".fifo";
    m_loader.start(Pactl,
                   {"load-module", "module-pipe-source", "source_name=" + sourceName(),
                    "file=" + m_fifo, "format=s16le", "rate=44100", "channels=2"});
}

void SoundPath::sourceLoaded(int exitCode)
{
    m_sourceModule = m_loader.readAllStandardOutput().trimmed();
    if (exitCode != 0) {
        m_source = Source::None;
        emit happened(sourceName()
                      + " could not be made: " + m_loader.readAllStandardError().trimmed());
        return;
    }
    m_source = Source::Loaded;
    m_feeder = new BackgroundProcess(this);
    m_feeder->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_feeder->setStandardOutputFile(QProcess::nullDevice());
    connect(m_feeder, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), m_feeder,
            &QObject::deleteLater);
    m_feeder->start(m_build + "/simulator/phone-audio",
                    {m_fifo, m_audio.isEmpty() ? QString("tone") : m_audio});
    setFeederPlaying(m_playing);
    emit happened(sourceName() + " exists");
    setTaken(true);
    updateSource();
}

/// Ends the source, or what is left of it.
void SoundPath::removeSource()
{
    if (m_feeder)
        m_feeder->kill();
    m_feeder.clear();
    if (m_source == Source::Loaded)
        QProcess::startDetached(Pactl, {"unload-module", m_sourceModule});
    m_source = Source::None;
    emit happened(sourceName() + " is gone");
    setTaken(false);
}

void SoundPath::setFeederPlaying(bool playing)
{
    if (m_feeder)
        m_feeder->write(playing ? "play\n" : "pause\n");
}
