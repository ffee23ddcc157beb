// The PIN with which phones pair.
#ifndef PAIRINGPIN_H
#define PAIRINGPIN_H

#include <QtCore/QString>

const char DefaultPid[] = "7351";

/** Whether the text is four decimal digits, of any script. */
bool isValidPid(const QString &pid);

#endif
