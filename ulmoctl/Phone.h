// The phone that is connected, as BlueZ tells it.
#ifndef PHONE_H
#define PHONE_H

#include <QtCore/QString>

struct Phone
{
    QString address; ///< empty while no phone is connected
    QString name; ///< as the phone calls itself
    bool playing = false;
};

/** Returns false, without a word, where BlueZ does not run or may not be asked. */
bool readPhone(Phone *phone);

#endif
