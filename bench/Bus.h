#ifndef BUS_H
#define BUS_H

#include <dbus/dbus.h>

#include <QByteArray>
#include <QProcess>

#include <functional>
#include <memory>

using Message = std::shared_ptr<DBusMessage>;

/// A message, and when it came.
struct Arrival
{
    Message message;
    double time;
};

/**
 * A message bus of the bench's own, with no monitor on it, and the bench's connection to it. Uses
 * libdbus by itself: nothing but the call lies between a measurement and the socket.
 */
class Bus
{
public:
    Bus();
    ~Bus();

    QByteArray address() const { return m_address; }

    void claim(const char *name);
    /// Receives the signals that fit a match rule from now on.
    void follow(const char *rule);
    /// Calls and waits for the answer.
    Message call(const Message &request);
    void send(const Message &message);
    /// Returns when everything that was sent has left.
    void flush();

    using Predicate = std::function<bool(DBusMessage *message)>;
    /**
     * Waits for a message that fits and drops those before it. Every method call that comes gets
     * the answer 0, which is what a sound manager says.
     */
    Arrival waitFor(const char *what, const Predicate &fits);
    /// Waits until somebody owns a name, whose NameOwnerChanged is followed.
    double waitForName(const char *name);
    /// Drops what has come so far.
    void dropReceived();

private:
    void answer(DBusMessage *message);

    QProcess m_daemon;
    QByteArray m_address;
    DBusConnection *m_connection = nullptr;
};

Message methodCall(const char *destination, const char *path, const char *interface,
                   const char *member);

#endif
