#ifndef SOUND_H
#define SOUND_H

#include <QJsonObject>
#include <QString>

/**
 * The outline of the sound in the raw file at \p path (see the board's output), small enough to go
 * into a page: "bucket", how many seconds one pair of peaks stands for; "stretches", each what was
 * heard without a break, with "start" (seconds since \p origin, a CLOCK_MONOTONIC time) and "peaks"
 * (base64: the lowest and the highest sample of both channels, -127 to 127, bucket by bucket); and
 * "late", the times from which on the player came too late. Empty when nothing was recorded. Throws
 * std::runtime_error when the file cannot be read.
 */
QJsonObject soundOutline(const QString &path, double origin);

#endif
