// What the parts share: the two buses, the log, and the end.
#pragma once

#include <QtDBus/QtDBus>

#include <csignal>
#include <functional>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

/** Gets what a call has returned, or an error, which alone has a name. */
typedef std::function<void(const QDBusMessage &)> Answered;

/** Writes to the system's log: the service gives its children no standard error. */
inline void warn(const QString &text)
{
    syslog(LOG_DAEMON | LOG_WARNING, "%s", qPrintable(text));
}

/** Ends as a crash would: whoever waits for an answer hears it from the bus. */
[[noreturn]] inline void fail(const QString &reason)
{
    warn(reason);
    _exit(1);
}

/** Has SIGTERM end the event loop. To be called before the bus library has its thread. */
inline void quitOnTermination()
{
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigprocmask(SIG_BLOCK, &termination, nullptr);
    const int signalled = signalfd(-1, &termination, SFD_CLOEXEC);
    auto *const notifier = new QSocketNotifier(signalled, QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [notifier] {
        notifier->setEnabled(false); // it is never read, and would keep a later loop awake
        QCoreApplication::quit();
    });
}

/** Where BlueZ 5 is. For the service, and so for what it starts, the system's is the product's. */
inline QDBusConnection machineBus()
{
    const QString usual = "unix:path=/run/dbus/system_bus_socket";
    return QDBusConnection::connectToBus(qEnvironmentVariable("ULMO_MACHINE_BUS_ADDRESS", usual),
                                         "machine");
}

inline QVariant objectPath(const QString &path)
{
    return QVariant::fromValue(QDBusObjectPath(path));
}

inline QVariant variant(const QVariant &value)
{
    return QVariant::fromValue(QDBusVariant(value));
}

inline QDBusMessage methodCall(const QString &service, const QString &path,
                               const QString &interface, const QString &method,
                               const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, interface, method);
    call.setArguments(arguments);
    return call;
}

/** An error goes to the log, unless the answer is asked for. */
inline void send(const QDBusConnection &bus, const QDBusMessage &call,
                 const Answered &answered = nullptr, int timeout = -1)
{
    auto *const watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, timeout), qApp);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, qApp, [=] {
        watcher->deleteLater();
        if (answered)
            answered(watcher->reply());
        else if (watcher->isError())
            warn(call.member() + ": " + watcher->error().message());
    });
}

/** Sends on the product's bus. */
inline void send(const QDBusMessage &message)
{
    QDBusConnection::systemBus().send(message);
}

/** Answers there with an error of BlueZ, such as "Failed". */
inline void refuse(const QDBusMessage &call, const QString &error, const QString &text)
{
    send(call.createErrorReply("org.bluez.Error." + error, text));
}

/** Answers there with what BlueZ 5 does, whose errors have BlueZ 4's names. */
inline Answered passTo(const QDBusMessage &call)
{
    return [call](const QDBusMessage &reply) {
        if (call.isReplyRequired()) // the bus complains of others
            send(reply.errorName().isEmpty()
                     ? call.createReply(reply.arguments())
                     : call.createErrorReply(reply.errorName(), reply.errorMessage()));
    };
}
