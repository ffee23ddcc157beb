// What the bridge's faces and the agent share: their buses, calls, answers, and the end.
#ifndef BUS_H
#define BUS_H

#include <QtCore/QVariant>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusMessage>
#include <functional>

typedef std::function<void(const QDBusMessage &)> Answered;

/** Where BlueZ 5 is. The service is on what its children inherit as the system bus. */
QDBusConnection machineBus();
/** Has this slot called, which takes nothing, when the bus has gone. */
void onBusLost(QDBusConnection bus, QObject *receiver, const char *slot);
/** Has this called after SIGTERM or SIGINT. To be asked for before there are threads. */
void onTermination(const std::function<void()> &end);
/** Writes a warning to the system's log: the service gives its children no standard error. */
void warn(const QString &text);

/** A call of "interface.method", which starts nobody. */
QDBusMessage methodCall(const QString &service, const QString &path, const QString &method,
                        const QVariantList &arguments);
/** Without an answer within these milliseconds, an error stands for one. */
void send(QDBusConnection bus, const QDBusMessage &call, int timeout, const Answered &answered);
bool isError(const QDBusMessage &answer);

// On the product's bus, where what is no call needs no answer. All return true.
bool answer(const QDBusMessage &call, const QVariantList &values = QVariantList());
/** With an error of BlueZ, such as "Failed". */
bool refuse(const QDBusMessage &call, const QString &error, const QString &text);
/** With what BlueZ 5 has answered. Its errors have the names of BlueZ 4; others become "Failed". */
bool pass(const QDBusMessage &call, const QDBusMessage &answered);
void tell(const QString &path, const char *interface, const char *signal,
          const QVariantList &arguments = QVariantList());

QVariant objectPath(const QString &path);
QString pathIn(const QVariant &objectPath);
/** These properties, as far as they are there. */
QVariantMap select(const QVariantMap &properties, std::initializer_list<const char *> names);
/** Those of the properties that were not there, or were others. */
QVariantMap changesOf(const QVariantMap &before, const QVariantMap &now);

#endif
