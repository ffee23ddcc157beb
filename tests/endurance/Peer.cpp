#include "Peer.h"

namespace {
const int CallTimeoutMs = 40000;
}

Peer::Peer(const QString &address)
{
    DBusError error = DBUS_ERROR_INIT;
    m_connection = dbus_connection_open_private(address.toUtf8(), &error);
    if (m_connection) {
        dbus_connection_set_exit_on_disconnect(m_connection, false);
        dbus_bus_register(m_connection, &error);
    }
    dbus_error_free(&error);
}

Peer::~Peer()
{
    if (!m_connection)
        return;
    dbus_connection_close(m_connection);
    dbus_connection_unref(m_connection);
}

bool Peer::claim(const QByteArray &name)
{
    return dbus_bus_request_name(m_connection, name, 0, nullptr)
        == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
}

QByteArray Peer::ownerOf(const QByteArray &name)
{
    const Message question = owned(dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetNameOwner"));
    const char *bytes = name.constData();
    dbus_message_append_args(question.get(), DBUS_TYPE_STRING, &bytes, DBUS_TYPE_INVALID);
    const Message reply = call(question);
    const char *owner = "";
    if (reply)
        dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
    return owner;
}

void Peer::send(const Message &message)
{
    dbus_connection_send(m_connection, message.get(), nullptr);
}

void Peer::flush()
{
    dbus_connection_flush(m_connection);
    while (receive(0)) { }
}

Message Peer::call(const Message &call)
{
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(m_connection, call.get(), CallTimeoutMs, nullptr);
    return reply ? owned(reply) : Message();
}

Message Peer::receive(int milliseconds)
{
    DBusMessage *message = dbus_connection_pop_message(m_connection);
    if (!message) {
        dbus_connection_read_write(m_connection, milliseconds);
        message = dbus_connection_pop_message(m_connection);
    }
    return message ? owned(message) : Message();
}

StandIn::StandIn(const QString &address, const QByteArray &name, quint32 seed)
    : m_peer(address)
    , m_random(seed)
    , m_isThere(m_peer.isConnected() && m_peer.claim(name))
    , m_thread([this] { work(); })
{
}

StandIn::~StandIn()
{
    m_end = true;
    m_thread.join();
}

void StandIn::send(const Message &message)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_waiting.append(message);
}

void StandIn::work()
{
    const int patienceMs = 5;
    while (!m_end && m_peer.isConnected()) {
        if (const Message message = m_peer.receive(patienceMs))
            answer(message.get());
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (const Message &message : m_waiting)
            m_peer.send(message);
        m_waiting.clear();
    }
}

void StandIn::answer(DBusMessage *call)
{
    if (dbus_message_get_type(call) != DBUS_MESSAGE_TYPE_METHOD_CALL)
        return;
    const int mostArguments = 3;
    const Message reply =
        owned(m_random.onceIn(4)
                  ? dbus_message_new_error(call, "org.example.Odd", m_random.text().constData())
                  : dbus_message_new_method_return(call));
    if (dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN)
        m_random.appendArguments(reply, mostArguments);
    m_peer.send(reply);
    ++m_answers;
}
