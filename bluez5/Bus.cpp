#include "Bus.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>
#include <QtDBus/QDBusObjectPath>
#include <QtDBus/QDBusPendingCallWatcher>

#include <csignal>
#include <sys/signalfd.h>
#include <syslog.h>

QDBusConnection machineBus()
{
    const QString usual = "unix:path=/run/dbus/system_bus_socket";
    return QDBusConnection::connectToBus(qEnvironmentVariable("ULMO_MACHINE_BUS_ADDRESS", usual),
                                         "machine");
}

void onBusLost(QDBusConnection bus, QObject *receiver, const char *slot)
{
    bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                "Disconnected", receiver, slot);
}

void onTermination(const std::function<void()> &end)
{
    sigset_t termination;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigaddset(&termination, SIGINT);
    // Inherited by the bus library's thread, so that they wait for the loop.
    sigprocmask(SIG_BLOCK, &termination, nullptr);
    auto *const notifier = new QSocketNotifier(signalfd(-1, &termination, SFD_CLOEXEC),
                                               QSocketNotifier::Read, qApp);
    QObject::connect(notifier, &QSocketNotifier::activated, qApp, [notifier, end] {
        notifier->setEnabled(false);
        end();
    });
}

void warn(const QString &text)
{
    syslog(LOG_DAEMON | LOG_WARNING, "%s", qPrintable(text));
}

QDBusMessage methodCall(const QString &service, const QString &path, const QString &method,
                        const QVariantList &arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        service, path, method.section('.', 0, -2), method.section('.', -1));
    call.setArguments(arguments);
    call.setAutoStartService(false);
    return call;
}

void send(QDBusConnection bus, const QDBusMessage &call, int timeout, const Answered &answered)
{
    auto *const watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, timeout), qApp);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, qApp, [watcher, answered] {
        watcher->deleteLater();
        if (answered)
            answered(watcher->reply());
    });
}

bool isError(const QDBusMessage &answer)
{
    return answer.type() != QDBusMessage::ReplyMessage;
}

bool answer(const QDBusMessage &call, const QVariantList &values)
{
    return !call.isReplyRequired() || QDBusConnection::systemBus().send(call.createReply(values));
}

bool refuse(const QDBusMessage &call, const QString &error, const QString &text)
{
    const QDBusMessage refusal = call.createErrorReply("org.bluez.Error." + error, text);
    return !call.isReplyRequired() || QDBusConnection::systemBus().send(refusal);
}

bool pass(const QDBusMessage &call, const QDBusMessage &answered)
{
    if (!isError(answered))
        return answer(call, answered.arguments());
    const bool isOfBluez = answered.errorName().startsWith("org.bluez.Error.");
    return refuse(call, isOfBluez ? answered.errorName().section('.', -1) : "Failed",
                  answered.errorMessage());
}

void tell(const QString &path, const char *interface, const char *signal,
          const QVariantList &arguments)
{
    QDBusMessage message = QDBusMessage::createSignal(path, interface, signal);
    message.setArguments(arguments);
    QDBusConnection::systemBus().send(message);
}

QVariant objectPath(const QString &path)
{
    return QVariant::fromValue(QDBusObjectPath(path));
}

QString pathIn(const QVariant &objectPath)
{
    return qvariant_cast<QDBusObjectPath>(objectPath).path();
}

QVariantMap select(const QVariantMap &properties, std::initializer_list<const char *> names)
{
    QVariantMap selected;
    for (const char *name : names) {
        if (properties.contains(name))
            selected.insert(name, properties.value(name));
    }
    return selected;
}

QVariantMap changesOf(const QVariantMap &before, const QVariantMap &now)
{
    QVariantMap changes;
    for (auto property = now.begin(); property != now.end(); ++property) {
        if (before.value(property.key()) != property.value())
            changes.insert(property.key(), property.value());
    }
    return changes;
}
