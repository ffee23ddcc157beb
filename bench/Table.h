#ifndef TABLE_H
#define TABLE_H

#include "Row.h"

#include <QByteArray>
#include <QVector>

/// All rows for people, with the bar beside each figure and whether it is met.
QString tableOf(const QVector<Row> &rows);

/// All rows for keeping.
QByteArray jsonOf(const QVector<Row> &rows);

#endif
