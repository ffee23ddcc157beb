#ifndef UNUSEDINTERFACES_H
#define UNUSEDINTERFACES_H

#include "Bus.h"

/**
 * Interfaces of the real daemon that nothing on the board calls: they can be seen, and every call
 * answers NotAvailable.
 */
namespace UnusedInterfaces {

/// org.bluez.Service, for /org/bluez/PID/any and the adapter.
Interface service();
/// What else the adapter has.
QVector<Interface> ofAdapter();

} // namespace UnusedInterfaces

#endif
