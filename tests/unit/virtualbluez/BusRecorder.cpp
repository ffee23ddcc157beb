#include "BusRecorder.h"

#include <QEventLoop>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QTimer>

namespace {

const int Patience = 20000;

QString text(const char *string)
{
    return QString::fromUtf8(string);
}

QString shortName(const QString &name)
{
    return QString(name).remove("org.bluez.").replace("org.freedesktop.DBus", "DBus");
}

} // namespace

BusRecorder::BusRecorder(const QString &address)
{
    m_clock.start();
    m_connection = dbus_connection_open_private(address.toUtf8(), nullptr);
    if (!m_connection || !dbus_bus_register(m_connection, nullptr))
        qFatal("no connection to the test's bus");
    dbus_connection_set_exit_on_disconnect(m_connection, false);
    DBusMessage *request = dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    const char **noRules = nullptr;
    const dbus_uint32_t flags = 0;
    dbus_message_append_args(request, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &noRules, 0,
                             DBUS_TYPE_UINT32, &flags, DBUS_TYPE_INVALID);
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(m_connection, request, Patience, nullptr);
    dbus_message_unref(request);
    if (!reply)
        qFatal("the test's bus cannot be monitored");
    dbus_message_unref(reply);

    int descriptor = -1;
    dbus_connection_get_unix_fd(m_connection, &descriptor);
    auto *notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &BusRecorder::readMessages);
}

BusRecorder::~BusRecorder()
{
    dbus_connection_close(m_connection);
    dbus_connection_unref(m_connection);
}

void BusRecorder::name(const QString &address, const QString &name)
{
    m_names.insert("dev_" + QString(address).replace(':', '_'), name);
}

bool BusRecorder::waitForLines(int count) const
{
    return waitUntil([&] { return m_lines.size() >= count; });
}

bool BusRecorder::waitForLine(const QString &line) const
{
    return waitUntil([&] { return m_lines.contains(line); });
}

bool BusRecorder::waitUntil(const std::function<bool()> &condition) const
{
    // Woken by each message, since product time runs fast: no polling.
    QEventLoop loop;
    connect(this, &BusRecorder::recorded, &loop, [&] {
        if (condition())
            loop.quit();
    });
    QTimer::singleShot(Patience, &loop, &QEventLoop::quit);
    if (!condition())
        loop.exec();
    return condition();
}

void BusRecorder::readMessages()
{
    dbus_connection_read_write(m_connection, 0);
    while (DBusMessage *message = dbus_connection_pop_message(m_connection)) {
        record(message);
        dbus_message_unref(message);
    }
    emit recorded();
}

void BusRecorder::record(DBusMessage *message)
{
    const QString sender = text(dbus_message_get_sender(message));
    const QString destination = text(dbus_message_get_destination(message));
    const QString what = QStringLiteral("%1 %2.%3")
                             .arg(role(text(dbus_message_get_path(message))),
                                  shortName(text(dbus_message_get_interface(message))),
                                  text(dbus_message_get_member(message)));
    const QPair<QString, quint32> answered(destination, dbus_message_get_reply_serial(message));
    switch (dbus_message_get_type(message)) {
    case DBUS_MESSAGE_TYPE_METHOD_CALL:
        if (destination == "org.bluez" || what.startsWith("agent ")) {
            // Nobody waits for the answer to Release: it may come after the daemon's end.
            if (!what.endsWith(".Release"))
                m_calls.insert({sender, dbus_message_get_serial(message)}, what);
            if (destination != "org.bluez")
                add("call " + what + ' ' + arguments(message));
        }
        break;
    case DBUS_MESSAGE_TYPE_METHOD_RETURN:
        if (m_calls.contains(answered))
            add("return " + m_calls.take(answered) + ' ' + arguments(message));
        break;
    case DBUS_MESSAGE_TYPE_ERROR:
        if (m_calls.contains(answered))
            add("error " + m_calls.take(answered) + ' '
                + shortName(text(dbus_message_get_error_name(message))) + ' ' + arguments(message));
        break;
    case DBUS_MESSAGE_TYPE_SIGNAL:
        if (what == "bus DBus.NameOwnerChanged" && arguments(message).startsWith("\"org.bluez\"")) {
            const char *nameText, *before, *now;
            dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &nameText, DBUS_TYPE_STRING,
                                  &before, DBUS_TYPE_STRING, &now, DBUS_TYPE_INVALID);
            m_daemon = text(now);
            add(*now ? "org.bluez appears" : "org.bluez vanishes");
        } else if (sender == m_daemon) {
            add(describeSignal(message, what));
        }
        break;
    }
}

QString BusRecorder::describeSignal(DBusMessage *message, const QString &what)
{
    static const QRegularExpression property("^\"(\\w+)\" (.*)$");
    if (!what.endsWith(".PropertyChanged"))
        return "signal " + what + ' ' + arguments(message);
    const auto match = property.match(arguments(message));
    return what.section('.', 0, 0) + '.' + match.captured(1) + " = " + match.captured(2);
}

void BusRecorder::add(const QString &line)
{
    m_lines.append(line.trimmed());
    m_times.append(m_clock.elapsed());
}

void BusRecorder::clear()
{
    m_lines.clear();
    m_times.clear();
}

QString BusRecorder::role(const QString &path) const
{
    static const QRegularExpression daemonsPart("^/org/bluez/\\d+/");
    if (path == "/org/freedesktop/DBus")
        return "bus";
    if (path == "/org/bluez/agent")
        return "agent";
    QString rest = path;
    if (rest.remove(daemonsPart) == path)
        return path;
    if (rest == "hci0")
        return "adapter";
    return m_names.value(rest.section('/', 1), rest);
}

QString BusRecorder::argument(DBusMessageIter *iterator) const
{
    const int type = dbus_message_iter_get_arg_type(iterator);
    if (type == DBUS_TYPE_VARIANT || type == DBUS_TYPE_ARRAY || type == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter inner;
        dbus_message_iter_recurse(iterator, &inner);
        QStringList parts;
        while (dbus_message_iter_get_arg_type(&inner) != DBUS_TYPE_INVALID) {
            parts.append(argument(&inner));
            dbus_message_iter_next(&inner);
        }
        if (type != DBUS_TYPE_ARRAY)
            return parts.join(' ');
        const bool isMap = dbus_message_iter_get_element_type(iterator) == DBUS_TYPE_DICT_ENTRY;
        return (isMap ? '{' : '[') + parts.join(' ') + (isMap ? '}' : ']');
    }
    static const QRegularExpression uuid("^0000(....)-0000-1000-8000-00805f9b34fb$");
    DBusBasicValue value;
    dbus_message_iter_get_basic(iterator, &value);
    switch (type) {
    case DBUS_TYPE_STRING: {
        const QString string = text(value.str).trimmed();
        const auto match = uuid.match(string);
        return match.hasMatch() ? match.captured(1) : '"' + string + '"';
    }
    case DBUS_TYPE_OBJECT_PATH:
        return role(text(value.str));
    case DBUS_TYPE_BOOLEAN:
        return value.bool_val ? "true" : "false";
    case DBUS_TYPE_UINT32:
        return QString::number(value.u32);
    default:
        return QStringLiteral("type %1").arg(QChar(type));
    }
}

QString BusRecorder::arguments(DBusMessage *message) const
{
    QStringList all;
    DBusMessageIter iterator;
    if (!dbus_message_iter_init(message, &iterator))
        return QString();
    do {
        all.append(argument(&iterator));
    } while (dbus_message_iter_next(&iterator));
    return all.join(' ');
}
