#ifndef SPREAD_H
#define SPREAD_H

#include <QVector>

/// The median of some repetitions, and the quartiles as a measure of their spread.
struct Spread
{
    double median = 0;
    double low = 0;
    double high = 0;
};

Spread spreadOf(QVector<double> values);

#endif
