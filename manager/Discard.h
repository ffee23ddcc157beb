#ifndef DISCARD_H
#define DISCARD_H

#include <QtCore/QObject>
#include <QtCore/QTimer>

/**
 * Disconnects the object from everybody, clears the field and leaves the deletion to the event
 * loop: most callers run inside a signal of that very object. A null field is left alone.
 */
template<class Object>
void discardLater(Object *&field)
{
    if (!field)
        return;
    QObject::disconnect(field, nullptr, nullptr, nullptr);
    field->deleteLater();
    field = nullptr;
}

/** Stops the timer as well, so that it does not wake the loop until it is deleted. */
inline void discardTimer(QTimer *&field)
{
    if (field)
        field->stop();
    discardLater(field);
}

#endif
