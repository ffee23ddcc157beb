// What the parts share: the two buses, the log, and the end.
#pragma once

#include <QtDBus/QtDBus>

#include <csignal>
#include <functional>
#include <sys/signalfd.h>
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

/** Calls "interface.method". An error goes to the log, unless the answer is asked for. */
inline void send(const QDBusConnection &bus, const QString &service, const QString &path,
                 const QString &method, const QVariantList &arguments,
                 const Answered &answered = nullptr, int timeout = -1)
{
    QDBusMessage call = QDBusMessage::createMethodCall(service, path, method.section('.', 0, -2),
                                                       method.section('.', -1));
    call.setArguments(arguments);
    auto *const watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, timeout), qApp);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, qApp, [=] {
        watcher->deleteLater();
        if (answered)
            answered(watcher->reply());
        else if (watcher->isError())
            warn(method + ": " + watcher->error().message());
    });
}

/** Sends on the product's bus; true. */
inline bool send(const QDBusMessage &message)
{
    return QDBusConnection::systemBus().send(message);
}

/** Tells "interface.signal" there. */
inline void tell(const QString &path, const QString &signal, const QVariantList &arguments)
{
    QDBusMessage message =
        QDBusMessage::createSignal(path, signal.section('.', 0, -2), signal.section('.', -1));
    message.setArguments(arguments);
    send(message);
}

/** Answers there with an error of BlueZ, such as "Failed". */
inline bool refuse(const QDBusMessage &call, const QString &error, const QString &text)
{
    return send(call.createErrorReply("org.bluez.Error." + error, text));
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

/** What is not as it was told, and is taken for told from now on. */
inline QVariantMap news(QVariantMap *told, const QVariantMap &properties)
{
    QVariantMap changes;
    for (const QString &name : properties.keys()) {
        if (!told->contains(name) || told->value(name) != properties.value(name))
            changes.insert(name, properties.value(name));
    }
    told->insert(changes);
    return changes;
}
