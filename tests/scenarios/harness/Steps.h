#ifndef STEPS_H
#define STEPS_H

#include "VirtualProduct.h"

#include <QHash>

/// What scenarios of the service as a whole do and look for again and again.
namespace Steps {

using Place = VirtualProduct::Place;
#define HERE_BY_DEFAULT Place place = {__builtin_FILE(), __builtin_LINE()}

/// BlueZ has its adapter as soon as its name, so that the first agent can register and stays.
VirtualProduct::Options adapterAtOnce();
/// The same, with Bluetooth switched off in the settings.
VirtualProduct::Options switchedOff();

/// Waits until the service is on the bus.
QJsonObject waitUntilRunning(VirtualProduct &product, HERE_BY_DEFAULT);
/// Waits until the service waits for BlueZ's name and bluetoothd has begun to work.
void waitUntilStarting(VirtualProduct &product, HERE_BY_DEFAULT);
/// Waits until the stack has come up and the agent has registered.
void waitUntilOn(VirtualProduct &product, HERE_BY_DEFAULT);

/**
 * Log lines ("4 Enable") and commands ("$ hciconfig hci0 up") from \p from on, in order. Without
 * the starts of the daemons and the agent: the service does not wait for what they do.
 */
QStringList steps(VirtualProduct &product, int from = 0);
/// The signals of the service on the session bus from \p from on: "BluetoothOn(true)".
QStringList serviceSignals(VirtualProduct &product, int from = 0);

/// Waits until each program that was started, the service included, has ended.
void expectNothingLeft(VirtualProduct &product, HERE_BY_DEFAULT);

/// From one entry of the journal to another.
double secondsBetween(const QJsonObject &first, const QJsonObject &second);

/// Everything that a bring-up consists of, from its first log line to its last.
QStringList bringUpSteps(int pairingMode = 0, const QString &pin = "7351");
/// The start of the agent within it.
QStringList agentSteps(int pairingMode = 0, const QString &pin = "7351");
/// Everything that a tear-down of a running stack consists of.
QStringList tearDownSteps();

/// What lines become: none, one or several others.
using Changes = QHash<QString, QStringList>;
/// \p lines with each one that \p changes names replaced.
QStringList changed(const QStringList &lines, const Changes &changes);

#undef HERE_BY_DEFAULT

} // namespace Steps

#endif
