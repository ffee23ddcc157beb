#ifndef ROW_H
#define ROW_H

#include "Spread.h"

#include <QString>

/// One line of the table: a figure of the service, its baseline, and how the two compare.
struct Row
{
    enum class Comparison {
        Ratio, ///< times the baseline
        Difference, ///< more than the baseline
        Absolute ///< by itself; the baseline is told for comparison
    };

    QString what;
    QString against; ///< what the baseline is
    QString unit;
    Comparison comparison;
    double bar = 0; ///< the most that the comparison may be
    Spread measured = {};
    Spread baseline = {};
    Spread compared = {};
    QString note = QString(); ///< what else is worth knowing

    bool isMet() const { return compared.median <= bar; }
};

/// Collects repetitions of a figure and of its baseline, taken in turn, for a row.
class Repetitions
{
public:
    void add(double measured, double baseline);
    /// Fills in what was measured; each repetition is compared by itself.
    Row row(Row row) const;

private:
    QVector<double> m_measured;
    QVector<double> m_baseline;
};

#endif
