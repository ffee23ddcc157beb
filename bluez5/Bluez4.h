// The bridge's face towards the service: BlueZ 4, as far as the service knows it.
#ifndef BLUEZ4_H
#define BLUEZ4_H

#include "Bluez5.h"

/**
 * org.bluez.Manager, Adapter, Device and AudioSource on the product's bus, at the paths of BlueZ 5.
 * What BlueZ 5 has is compared with what was told, and the difference told in BlueZ 4's order. What
 * is known to send no sound, a keyboard say, is left out: the service would keep the place for it.
 */
class Bluez4 : public QObject
{
public:
    Bluez4(Bluez5 *bluez5, QObject *parent);

    /** Tells the adapter. To be called when the name org.bluez has been taken. */
    void begin();
    /** Answers a call, at once or later; false when there is no such method. */
    bool handle(const QDBusMessage &call);
    QStringList connectedPhones() const;

private:
    struct Phone
    {
        QVariantMap told;
        QString state = "disconnected";
        QDBusMessage removing;   // the unanswered Adapter.RemoveDevice, if any
        QDBusMessage connecting; // the unanswered AudioSource.Connect, if any,
        int attempt = 0;         // and its number, or 0
    };

    bool handlePhone(const QString &method, const QDBusMessage &call);
    bool removePhone(const QDBusMessage &call);
    bool connectSound(const QDBusMessage &call);
    void openStream(const QString &path, int attempt, bool isLast);
    void endConnect(const QString &path, int attempt);
    QVariantMap adapterProperties() const;
    QVariantMap deviceProperties(const QString &path) const;
    void update(const QString &path);
    void updateAdapter();
    void updateState(const QString &path);
    void setState(const QString &path, const QString &state);

    Bluez5 *const m_bluez5;
    QVariantMap m_adapterTold;
    QMap<QString, Phone> m_phones;
    int m_attempts = 0;
};

#endif
