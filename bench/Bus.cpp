#include "Bus.h"

#include "CannotMeasure.h"
#include "Clock.h"

#include <cstring>

namespace {

const int TimeoutMs = int(Patience * 1000);

Message owned(DBusMessage *message)
{
    return Message(message, dbus_message_unref);
}

/// Throws where libdbus reports an error.
class Failure
{
public:
    Failure() { dbus_error_init(&m_error); }
    ~Failure() { dbus_error_free(&m_error); }

    DBusError *out() { return &m_error; }
    void check() const
    {
        if (dbus_error_is_set(&m_error))
            throw CannotMeasure(QString("%1: %2").arg(m_error.name, m_error.message));
    }

private:
    Q_DISABLE_COPY(Failure)

    DBusError m_error;
};

} // namespace

Bus::Bus()
{
    static int count = 0;
    const QString path = QString("/run/product/bench-bus-%1").arg(++count);
    m_daemon.start("dbus-daemon",
                   {"--config-file=/run/product/bus.conf", "--nofork", "--nopidfile",
                    "--address=unix:path=" + path, "--print-address"});
    while (!m_daemon.canReadLine()) {
        if (!m_daemon.waitForReadyRead(TimeoutMs))
            throw CannotMeasure("no message bus starts");
    }
    m_address = m_daemon.readLine().trimmed();

    Failure failure;
    m_connection = dbus_connection_open_private(m_address, failure.out());
    failure.check();
    dbus_bus_register(m_connection, failure.out());
    failure.check();
    dbus_connection_set_exit_on_disconnect(m_connection, false);
}

Bus::~Bus()
{
    if (m_connection) {
        dbus_connection_close(m_connection);
        dbus_connection_unref(m_connection);
    }
    m_daemon.kill();
    m_daemon.waitForFinished();
}

void Bus::claim(const char *name)
{
    Failure failure;
    dbus_bus_request_name(m_connection, name, DBUS_NAME_FLAG_DO_NOT_QUEUE, failure.out());
    failure.check();
}

void Bus::follow(const char *rule)
{
    Failure failure;
    dbus_bus_add_match(m_connection, rule, failure.out());
    failure.check();
}

Message Bus::call(const Message &request)
{
    Failure failure;
    DBusMessage *reply = dbus_connection_send_with_reply_and_block(m_connection, request.get(),
                                                                   TimeoutMs, failure.out());
    failure.check();
    return owned(reply);
}

void Bus::send(const Message &message)
{
    dbus_connection_send(m_connection, message.get(), nullptr);
}

void Bus::flush()
{
    dbus_connection_flush(m_connection);
}

Arrival Bus::waitFor(const char *what, const Predicate &fits)
{
    const int pollMs = 100;
    const double deadline = now() + Patience;
    while (now() < deadline && dbus_connection_read_write(m_connection, pollMs)) {
        while (DBusMessage *received = dbus_connection_pop_message(m_connection)) {
            const double time = now();
            const Message message = owned(received);
            answer(received);
            if (fits(received))
                return {message, time};
        }
    }
    throw CannotMeasure(QString("%1 did not happen").arg(what));
}

double Bus::waitForName(const char *name)
{
    const auto isOwned = [name](DBusMessage *message) {
        const char *changed = nullptr;
        const char *before = nullptr;
        const char *owner = nullptr;
        return dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged")
            && dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &changed, DBUS_TYPE_STRING,
                                     &before, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID)
            && strcmp(changed, name) == 0 && *owner;
    };
    return waitFor(name, isOwned).time;
}

void Bus::dropReceived()
{
    dbus_connection_read_write(m_connection, 0);
    while (DBusMessage *received = dbus_connection_pop_message(m_connection)) {
        answer(received);
        dbus_message_unref(received);
    }
    dbus_connection_flush(m_connection);
}

void Bus::answer(DBusMessage *message)
{
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL
        || dbus_message_get_no_reply(message))
        return;
    const Message reply = owned(dbus_message_new_method_return(message));
    const dbus_int32_t done = 0;
    dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &done, DBUS_TYPE_INVALID);
    send(reply);
    flush();
}

Message methodCall(const char *destination, const char *path, const char *interface,
                   const char *member)
{
    return owned(dbus_message_new_method_call(destination, path, interface, member));
}
