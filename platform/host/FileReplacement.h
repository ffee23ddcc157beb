// Replaces a file as a whole: whoever reads it, even after a power cut, sees the old or the new
// one.
#ifndef FILEREPLACEMENT_H
#define FILEREPLACEMENT_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

/**
 * Gives the file new content, durably. Owner and mode of an existing file are kept, a symbolic link
 * is followed, missing folders are made; a new file belongs to its owner alone. Returns the reason
 * when that failed, or nothing.
 */
QString replaceFile(const QByteArray &path, const QByteArray &content);

#endif
