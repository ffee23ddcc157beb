#ifndef OPTIONS_H
#define OPTIONS_H

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

/**
 * How the hub wants the virtual daemon to be.
 *
 * Keys of the JSON object, all optional; null means back to the default:
 *   name-delay     milliseconds before org.bluez is claimed (real time)
 *   no-name        true: org.bluez is never claimed
 *   adapter-delay  milliseconds from the name to the adapter (real time)
 *   no-adapter     true: no adapter ever appears
 *   backend        "mgmt" or "hci": the order of some signals
 *   order          "usual" or "other": where the raw HCI back-end shows either order of two
 *                  signals, the more frequent or the rarer one
 *   timescale      real time per product time
 *   race           number of Connect calls straight after a Disconnect's reply that fail
 *   stream-taken   true: a local client takes every stream, so that it is not suspended after 5 s
 *   state          folder for what the daemon and the phones remember over a restart
 *   faults         array of faults of single methods, see Bus::setFaults()
 * Numbers and switches may come as strings.
 */
struct Options
{
    /// How the daemon drives the kernel, which shows in the order of some signals.
    enum class Backend {
        Management, ///< management interface: link events come before the AVDTP sockets'
        Hci ///< raw HCI: link events and AVDTP sockets wait in the same queue, in either order
    };

    int nameDelay = 0;
    bool noName = false;
    int adapterDelay = 60;
    bool noAdapter = false;
    Backend backend = Backend::Management;
    bool otherOrder = false;
    double timescale = 1;
    int race = 0;
    bool streamTaken = false;
    QString state = QStringLiteral("/var/lib/bluetooth");
    QJsonArray faults;

    /// Takes over what \p changed names; ignores what it does not know.
    void apply(const QJsonObject &changed);
    /// Whether the raw HCI back-end is to show the rarer of two orders.
    bool showsOtherOrder() const { return backend == Backend::Hci && otherOrder; }
};

#endif
