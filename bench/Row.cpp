#include "Row.h"

namespace {

double compare(Row::Comparison comparison, double measured, double baseline)
{
    switch (comparison) {
    case Row::Comparison::Ratio:
        return measured / baseline;
    case Row::Comparison::Difference:
        return measured - baseline;
    case Row::Comparison::Absolute:
        break;
    }
    return measured;
}

} // namespace

void Repetitions::add(double measured, double baseline)
{
    m_measured.append(measured);
    m_baseline.append(baseline);
}

Row Repetitions::row(Row row) const
{
    QVector<double> compared;
    for (int i = 0; i < m_measured.size(); ++i)
        compared.append(compare(row.comparison, m_measured.at(i), m_baseline.at(i)));
    row.measured = spreadOf(m_measured);
    row.baseline = spreadOf(m_baseline);
    row.compared = spreadOf(compared);
    return row;
}
