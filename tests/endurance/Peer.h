#ifndef PEER_H
#define PEER_H

#include "RandomMessage.h"

#include <dbus/dbus.h>

#include <QString>

#include <atomic>
#include <mutex>
#include <thread>

/// Somebody on a bus, below the level at which a library would keep the shape of messages right.
class Peer
{
public:
    explicit Peer(const QString &address);
    ~Peer();
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    bool isConnected() const
    {
        return m_connection && dbus_connection_get_is_connected(m_connection);
    }
    /// Becomes the owner of the bus name \p name.
    bool claim(const QByteArray &name);
    /// The unique name of the owner of \p name.
    QByteArray ownerOf(const QByteArray &name);
    void send(const Message &message);
    /// Hands everything over to the bus, and throws away what has come.
    void flush();
    /// The reply to \p call; null when there is none or an error.
    Message call(const Message &call);
    /// What has come next, or null after \p milliseconds.
    Message receive(int milliseconds);

private:
    DBusConnection *m_connection = nullptr;
};

/**
 * A service whose answers never have the right shape. It works in a thread of its own, since
 * whoever asks it may block meanwhile.
 */
class StandIn
{
public:
    StandIn(const QString &address, const QByteArray &name, quint32 seed);
    ~StandIn();

    bool isThere() const { return m_isThere; }
    int answers() const { return m_answers; }
    /// Sends a message under the name, from its own thread.
    void send(const Message &message);

private:
    void work();
    void answer(DBusMessage *call);

    Peer m_peer;
    RandomMessage m_random;
    bool m_isThere;
    std::atomic<int> m_answers {0};
    std::atomic<bool> m_end {false};
    std::mutex m_mutex;
    QVector<Message> m_waiting;
    std::thread m_thread;
};

#endif
