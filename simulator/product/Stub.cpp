#include "Stub.h"

#include "core/Journal.h"

#include <QJsonArray>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace {

const QStringList Daemons {"bluetoothd", "agent", "pulseaudio"};

const char *laneOf(const QString &program)
{
    if (program == "bluetoothd")
        return "bluez";
    if (program == "agent")
        return "agent";
    return program == "pulseaudio" || program == "pactl" ? "pulse" : "tool";
}

} // namespace

Stub::Stub(int socket, Journal &journal, QObject *parent)
    : QObject(parent)
    , m_socket(socket)
    , m_journal(journal)
    , m_notifier(new QSocketNotifier(socket, QSocketNotifier::Read, this))
    , m_endsBy("signal")
    , m_endCode(SIGKILL) // of SIGTERM it tells
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    m_pid = peer.pid;
    connect(m_notifier, &QSocketNotifier::activated, this, &Stub::read);
}

Stub::~Stub()
{
    ::close(m_socket);
}

void Stub::order(const QStringList &texts)
{
    const QByteArray packet = texts.join(QChar('\0')).toUtf8() + '\0';
    ::send(m_socket, packet.constData(), size_t(packet.size()), MSG_NOSIGNAL);
}

void Stub::exit(int status)
{
    m_endsBy = "status";
    m_endCode = status;
    order({"exit", QString::number(status)});
}

void Stub::endBy(int signal)
{
    m_endCode = signal;
    order({"signal", QString::number(signal)});
}

void Stub::become(const QString &path, const QString &library)
{
    m_endsBy.clear();
    order({"become", path, library});
}

void Stub::kill(int signal)
{
    if (signal != SIGTERM && signal != SIGSTOP && signal != SIGCONT) {
        m_endsBy = "signal";
        m_endCode = signal;
    }
    ::kill(pid_t(m_pid), signal);
}

void Stub::read()
{
    char packet[65536];
    ssize_t size = 0;
    while ((size = ::recv(m_socket, packet, sizeof packet, MSG_DONTWAIT)) > 0) {
        QStringList texts = QString::fromUtf8(packet, int(size)).split(QChar('\0'));
        texts.removeLast();
        if (m_texts.isEmpty()) {
            m_texts = texts;
            emit aboutToSpeak();
            recordStart();
            emit started();
        } else if (texts.value(0) == "term") {
            emit aboutToSpeak();
            emit terminationRequested();
        } else {
            emit programEnded(texts.value(1).toInt());
        }
    }
    const bool isGone = size == 0 || (errno != EAGAIN && errno != EINTR);
    if (!isGone || !m_notifier->isEnabled())
        return;
    m_notifier->setEnabled(false);
    deleteLater();
    if (!m_texts.isEmpty())
        recordEnd();
    emit ended();
}

void Stub::recordStart()
{
    const QString mark = Daemons.contains(name()) ? "& " : "$ ";
    m_journal.record(laneOf(name()), "start", mark + (QStringList {name()} + arguments()).join(' '),
                     {{"program", name()},
                      {"pid", m_pid},
                      {"arguments", QJsonArray::fromStringList(arguments())}});
}

void Stub::recordEnd()
{
    QStringList words {".", name()};
    if (!Daemons.contains(name()))
        words += arguments();
    words.append("ended");
    QJsonObject facts {{"program", name()}, {"pid", m_pid}};
    if (!m_endsBy.isEmpty()) {
        words += {m_endsBy == "status" ? "with status" : "by signal", QString::number(m_endCode)};
        facts.insert(m_endsBy, m_endCode);
    }
    m_journal.record(laneOf(name()), "end", words.join(' '), facts);
}
