#include "PairingPin.h"

bool isValidPid(const QString &pid)
{
    if (pid.length() != 4)
        return false;
    for (int i = 0; i < pid.length(); ++i) {
        if (!pid.at(i).isDigit())
            return false;
    }
    return true;
}
