#include "Stubs.h"

#include "core/Journal.h"

#include <QJsonArray>
#include <QSocketNotifier>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const char *laneOf(const QString &program)
{
    if (program == "bluetoothd")
        return "bluez";
    if (program == "agent")
        return "agent";
    return program == "pulseaudio" || program == "pactl" ? "pulse" : "tool";
}

bool isDaemon(const QString &program)
{
    return program == "bluetoothd" || program == "agent" || program == "pulseaudio";
}

QJsonObject factsOf(const Stub &stub)
{
    return {{"program", stub.name()},
            {"pid", stub.pid()},
            {"arguments", QJsonArray::fromStringList(stub.arguments())}};
}

} // namespace

Stub::Stub(int socket, QObject *parent)
    : QObject(parent)
    , m_socket(socket)
    , m_notifier(new QSocketNotifier(socket, QSocketNotifier::Read, this))
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    m_pid = peer.pid;
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

void Stub::print(const QString &text)
{
    order({"print", text});
}

void Stub::exit(int status)
{
    m_status = status;
    order({"exit", QString::number(status)});
}

void Stub::endBy(int signal)
{
    m_signal = signal;
    order({"signal", QString::number(signal)});
}

void Stub::run(const QString &path)
{
    order({"run", path});
}

void Stub::become(const QString &path, const QString &library)
{
    m_isReal = true;
    order({"become", path, library});
}

QString Stub::kill(int signal)
{
    // Of SIGTERM the program tells, these two it survives.
    if (signal != SIGTERM && signal != SIGSTOP && signal != SIGCONT)
        m_signal = signal;
    return ::kill(pid_t(m_pid), signal) == 0 ? QString() : strerror(errno);
}

QString Stub::ending() const
{
    if (m_status >= 0)
        return QString("with status %1").arg(m_status);
    // Nobody but its parent is told how the real program ended.
    return m_isReal ? QString() : QString("by signal %1").arg(m_signal);
}

Stubs::Stubs(Journal &journal, const std::function<void()> &beforeRecording, QObject *parent)
    : QObject(parent), m_journal(journal), m_beforeRecording(beforeRecording)
{
}

Stubs::~Stubs()
{
    ::close(m_socket);
}

QString Stubs::listen(const QString &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.toLocal8Bit(), sizeof address.sun_path);
    m_socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (::bind(m_socket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || ::listen(m_socket, SOMAXCONN) != 0)
        return path + ": " + strerror(errno);
    auto *notifier = new QSocketNotifier(m_socket, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &Stubs::accept);
    return {};
}

void Stubs::accept()
{
    for (;;) {
        const int socket = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (socket < 0)
            return;
        auto *stub = new Stub(socket, this);
        m_stubs.append(stub);
        connect(stub->m_notifier, &QSocketNotifier::activated, this, [this, stub] { read(stub); });
        read(stub);
    }
}

void Stubs::catchUp()
{
    accept();
    const QList<Stub *> stubs = m_stubs;
    for (Stub *stub : stubs) {
        if (m_stubs.contains(stub))
            read(stub);
    }
}

Stub *Stubs::find(const QString &name) const
{
    for (auto stub = m_stubs.crbegin(); stub != m_stubs.crend(); ++stub) {
        if ((*stub)->name() == name)
            return *stub;
    }
    return nullptr;
}

void Stubs::read(Stub *stub)
{
    char packet[65536];
    ssize_t size = 0;
    while ((size = ::recv(stub->m_socket, packet, sizeof packet, MSG_DONTWAIT)) > 0) {
        QStringList texts = QString::fromUtf8(packet, int(size)).split(QChar('\0'));
        texts.removeLast();
        const QString what = texts.value(0);
        if (stub->name().isEmpty()) {
            readHello(stub, texts);
        } else if (what == "term") {
            m_beforeRecording();
            emit terminationRequested(stub);
        } else if (what == "status") {
            emit programEnded(stub, texts.value(1).toInt());
        }
    }
    if ((size < 0 && (errno == EAGAIN || errno == EINTR)) || !m_stubs.removeOne(stub))
        return;
    stub->m_notifier->setEnabled(false);
    stub->deleteLater();
    if (!stub->name().isEmpty()) {
        recordEnd(*stub);
        emit ended(stub);
    }
}

void Stubs::readHello(Stub *stub, const QStringList &texts)
{
    stub->m_name = texts.value(0);
    stub->m_hostName = texts.value(1);
    stub->m_arguments = texts.mid(2);
    m_beforeRecording();
    const QString command = (QStringList {stub->name()} + stub->arguments()).join(' ');
    m_journal.record(laneOf(stub->name()), "start",
                     (isDaemon(stub->name()) ? "& " : "$ ") + command, factsOf(*stub));
    emit started(stub);
}

void Stubs::recordEnd(const Stub &stub)
{
    QStringList words {stub.name()};
    if (!isDaemon(stub.name()))
        words += stub.arguments();
    words.append("ended");
    if (!stub.ending().isEmpty())
        words.append(stub.ending());
    QJsonObject facts = factsOf(stub);
    if (stub.m_status >= 0)
        facts.insert("status", stub.m_status);
    else if (!stub.m_isReal)
        facts.insert("signal", stub.m_signal);
    m_journal.record(laneOf(stub.name()), "end", ". " + words.join(' '), facts);
}
