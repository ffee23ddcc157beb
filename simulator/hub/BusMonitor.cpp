#include "BusMonitor.h"

#include "MessageJson.h"

#include <QSocketNotifier>
#include <QStringList>

#include <utility>

#include <poll.h>

namespace {

const int AskTimeoutMs = 1000;
const int AnswerTimeoutMs = 5000;

QString text(const char *string)
{
    return QString::fromUtf8(string);
}

bool hasInput(int descriptor, int timeoutMs)
{
    pollfd poller = {descriptor, POLLIN, 0};
    return poll(&poller, 1, timeoutMs) > 0 && (poller.revents & POLLIN);
}

DBusMessage *busCall(const char *interface, const char *member)
{
    return dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, interface, member);
}

} // namespace

BusMonitor::BusMonitor(const QString &bus, QObject *parent) : QObject(parent), m_bus(bus) { }

BusMonitor::~BusMonitor()
{
    disconnectBoth();
}

void BusMonitor::disconnectBoth()
{
    delete findChild<QSocketNotifier *>();
    for (DBusConnection **connection : {&m_monitor, &m_asker}) {
        if (DBusConnection *old = std::exchange(*connection, nullptr)) {
            dbus_connection_close(old);
            dbus_connection_unref(old);
        }
    }
}

void BusMonitor::setProgramNames(const ProgramNames &names)
{
    m_programNames = names;
}

DBusConnection *BusMonitor::connectTo(const QString &address, QString *error)
{
    DBusError failure = DBUS_ERROR_INIT;
    DBusConnection *connection = dbus_connection_open_private(address.toUtf8(), &failure);
    if (connection && dbus_bus_register(connection, &failure)) {
        dbus_connection_set_exit_on_disconnect(connection, false);
        return connection;
    }
    *error = text(failure.message);
    dbus_error_free(&failure);
    if (connection) {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
    return nullptr;
}

bool BusMonitor::start(const QString &address, QString *error)
{
    disconnectBoth();
    m_lastQuestion = 0;
    m_programs.clear();
    m_wellKnownNames.clear();
    m_owners.clear();
    m_openCalls.clear();
    m_asker = connectTo(address, error);
    m_monitor = m_asker ? connectTo(address, error) : nullptr;
    if (!m_monitor || !becomeMonitor(error))
        return false;
    m_askerName = text(dbus_bus_get_unique_name(m_asker));
    m_monitorName = text(dbus_bus_get_unique_name(m_monitor));
    int descriptor = -1;
    dbus_connection_get_unix_fd(m_monitor, &descriptor);
    auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &BusMonitor::readable);
    return true;
}

bool BusMonitor::becomeMonitor(QString *error)
{
    DBusMessage *request = busCall("org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    DBusMessageIter arguments, rules;
    dbus_message_iter_init_append(request, &arguments);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, "s", &rules);
    dbus_message_iter_close_container(&arguments, &rules);
    const dbus_uint32_t flags = 0;
    dbus_message_iter_append_basic(&arguments, DBUS_TYPE_UINT32, &flags);

    DBusError failure = DBUS_ERROR_INIT;
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(m_monitor, request, AnswerTimeoutMs, &failure);
    dbus_message_unref(request);
    if (!reply) {
        *error = text(failure.message);
        dbus_error_free(&failure);
        return false;
    }
    dbus_message_unref(reply);
    return true;
}

QVector<QJsonObject> BusMonitor::takeEntries()
{
    if (m_monitor)
        readAvailable();
    return std::exchange(m_entries, {});
}

void BusMonitor::readAvailable()
{
    int descriptor = -1;
    dbus_connection_get_unix_fd(m_monitor, &descriptor);
    do {
        dbus_connection_read_write(m_monitor, 0);
        popMessages();
    } while (dbus_connection_get_is_connected(m_monitor) && hasInput(descriptor, 0));
    if (!dbus_connection_get_is_connected(m_monitor)) {
        delete findChild<QSocketNotifier *>();
        popMessages();
    }
}

void BusMonitor::settle()
{
    if (!m_monitor || !dbus_connection_get_is_connected(m_asker))
        return;
    // The bus shows its monitors everything in one order, a question of ours as well. Nobody waits
    // for its answer.
    DBusMessage *question = busCall(DBUS_INTERFACE_DBUS, "GetId");
    dbus_message_set_no_reply(question, true);
    dbus_uint32_t serial = 0;
    dbus_connection_send(m_asker, question, &serial);
    dbus_connection_flush(m_asker);
    dbus_message_unref(question);
    int descriptor = -1;
    dbus_connection_get_unix_fd(m_monitor, &descriptor);
    while (m_lastQuestion < serial && dbus_connection_get_is_connected(m_monitor)
           && hasInput(descriptor, AskTimeoutMs))
        readAvailable();
}

void BusMonitor::popMessages()
{
    while (DBusMessage *message = dbus_connection_pop_message(m_monitor)) {
        const QString sender = text(dbus_message_get_sender(message));
        const QString destination = text(dbus_message_get_destination(message));
        followNames(message);
        if (sender == m_askerName)
            m_lastQuestion = dbus_message_get_serial(message);
        if (!dbus_message_has_interface(message, DBUS_INTERFACE_LOCAL) && sender != m_askerName
            && destination != m_askerName && destination != m_monitorName)
            m_entries.append(toEntry(message));
        dbus_message_unref(message);
    }
}

void BusMonitor::followNames(DBusMessage *message)
{
    const char *name = nullptr;
    const char *before = nullptr;
    const char *now = nullptr;
    if (!dbus_message_is_signal(message, DBUS_INTERFACE_DBUS, "NameOwnerChanged")
        || !dbus_message_has_sender(message, DBUS_SERVICE_DBUS)
        || !dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING,
                                  &before, DBUS_TYPE_STRING, &now, DBUS_TYPE_INVALID))
        return;
    const QString busName = text(name);
    if (busName.startsWith(':')) {
        // Kept after its end: its last messages may still be under way.
        if (*now)
            m_programs.insert(busName, programOf(busName));
        return;
    }
    m_wellKnownNames[text(before)].removeAll(busName);
    m_owners.remove(busName);
    if (*now) {
        m_wellKnownNames[text(now)].append(busName);
        m_owners.insert(busName, text(now));
    }
}

QString BusMonitor::programOf(const QString &uniqueName)
{
    DBusMessage *request = busCall(DBUS_INTERFACE_DBUS, "GetConnectionUnixProcessID");
    const QByteArray bytes = uniqueName.toUtf8();
    const char *name = bytes.constData();
    dbus_message_append_args(request, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(m_asker, request, AskTimeoutMs, nullptr);
    dbus_message_unref(request);
    if (!reply)
        return QString();
    dbus_uint32_t pid = 0;
    dbus_message_get_args(reply, nullptr, DBUS_TYPE_UINT32, &pid, DBUS_TYPE_INVALID);
    dbus_message_unref(reply);
    return m_programNames ? m_programNames(pid) : QString();
}

/// What people call the owner of \p busName: "service", a well-known name, a program, "caller".
QString BusMonitor::nameOf(const QString &busName) const
{
    const QString unique = busName.startsWith(':') ? busName : m_owners.value(busName);
    const QString program = m_programs.value(unique);
    if (program == "service")
        return program;
    if (!busName.startsWith(':'))
        return busName;
    const QStringList names = m_wellKnownNames.value(unique);
    if (!names.isEmpty())
        return names.first();
    return program.isEmpty() ? QString("caller") : program;
}

QJsonObject BusMonitor::toEntry(DBusMessage *message)
{
    static const char *const kinds[] = {"invalid", "call", "reply", "error", "signal"};
    const int type = dbus_message_get_type(message);
    QJsonObject entry {{"lane", "bus"},
                       {"kind", kinds[type]},
                       {"bus", m_bus},
                       {"sender", text(dbus_message_get_sender(message))},
                       {"senderName", nameOf(text(dbus_message_get_sender(message)))},
                       {"serial", double(dbus_message_get_serial(message))},
                       {"signature", text(dbus_message_get_signature(message))}};
    const QString destination = text(dbus_message_get_destination(message));
    if (!destination.isEmpty()) {
        entry.insert("destination", destination);
        entry.insert("destinationName", nameOf(destination));
    }
    const QJsonArray arguments = messageArguments(message);
    entry.insert("arguments", arguments);
    if (type == DBUS_MESSAGE_TYPE_ERROR) {
        entry.insert("name", text(dbus_message_get_error_name(message)));
        entry.insert("text", arguments.first().toString());
    }
    nameCall(message, &entry);
    return entry;
}

/// Path, interface and member; an answer gets those of the call that it answers.
void BusMonitor::nameCall(DBusMessage *message, QJsonObject *entry)
{
    Call call {text(dbus_message_get_path(message)), text(dbus_message_get_interface(message)),
               text(dbus_message_get_member(message))};
    const int type = dbus_message_get_type(message);
    if (type == DBUS_MESSAGE_TYPE_METHOD_CALL && !dbus_message_get_no_reply(message)) {
        m_openCalls.insert(
            {text(dbus_message_get_sender(message)), dbus_message_get_serial(message)}, call);
    } else if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
        const quint32 serial = dbus_message_get_reply_serial(message);
        entry->insert("replySerial", double(serial));
        call = m_openCalls.take({text(dbus_message_get_destination(message)), serial});
    }
    entry->insert("path", call.path);
    entry->insert("interface", call.interface);
    entry->insert("member", call.member);
}
