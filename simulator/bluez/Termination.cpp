#include "Termination.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

Termination::Termination(QObject *parent) : QObject(parent)
{
    sigset_t handled;
    sigemptyset(&handled);
    for (int signal : {SIGTERM, SIGINT}) {
        struct sigaction present = {};
        sigaction(signal, nullptr, &present);
        if (present.sa_handler != SIG_IGN)
            sigaddset(&handled, signal);
    }
    // Before any thread is started: all of them must block what the descriptor is to receive.
    sigprocmask(SIG_BLOCK, &handled, nullptr);
    m_descriptor = signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
    m_notifier = new QSocketNotifier(m_descriptor, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &Termination::readSignal);
}

Termination::~Termination()
{
    delete m_notifier;
    close(m_descriptor);
}

void Termination::readSignal()
{
    signalfd_siginfo information;
    if (read(m_descriptor, &information, sizeof information) == sizeof information)
        emit requested();
}
