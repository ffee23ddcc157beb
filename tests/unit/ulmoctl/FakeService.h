// Stands on the bus where the Bluetooth service does, and answers as it is told.
#ifndef FAKESERVICE_H
#define FAKESERVICE_H

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>

#include <functional>

#include "Names.h"

class FakeService : public QDBusVirtualObject
{
public:
    QStringList calls; ///< as "SetPid s 1234"
    int status = 0;
    bool enabled = true;
    bool on = false;
    QString pin = "7351";
    QString error; ///< name of the D-Bus error to answer with, if any
    bool silent = false; ///< never answers
    std::function<void(const QString &method)> beforeAnswer = [](const QString &) {};
    std::function<void(const QString &method)> afterAnswer = [](const QString &) {};

    explicit FakeService(const QString &address)
        : m_bus(QDBusConnection::connectToBus(address, nextName()))
    {
    }
    ~FakeService() override { leave(); }

    bool appear()
    {
        return m_bus.registerVirtualObject(Names::Object, this)
            && m_bus.registerService(Names::Service);
    }

    void signal(const QString &name, const QVariantList &arguments = {})
    {
        QDBusMessage message = QDBusMessage::createSignal(
            Names::Object, "com.orbitalis.ulmo.bluetoothinterface", name);
        message.setArguments(arguments);
        m_bus.send(message);
    }

    /// Is gone from the bus like a service that crashes; calls stay without an answer.
    void leave()
    {
        QDBusConnection::disconnectFromBus(m_bus.name());
        m_bus = QDBusConnection(QString()); // the last reference is what keeps it open
    }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &bus) override
    {
        const QString method = message.member();
        QStringList words {method};
        if (!message.signature().isEmpty())
            words << message.signature() << message.arguments().first().toString();
        calls << words.join(' ');
        beforeAnswer(method);
        QVariantList answer {status};
        if (method == "GetStatus")
            answer << enabled << on << pin;
        if (!silent)
            bus.send(error.isEmpty() ? message.createReply(answer)
                                     : message.createErrorReply(error, "no such luck"));
        afterAnswer(method);
        return true;
    }

    QString introspect(const QString &) const override { return QString(); }

private:
    static QString nextName()
    {
        static int count = 0;
        return QString("fake service %1").arg(++count);
    }

    QDBusConnection m_bus;
};

#endif
