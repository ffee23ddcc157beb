#include "Spread.h"

#include <algorithm>
#include <cmath>

namespace {

/// Linear between the two nearest of \p sorted.
double quantile(const QVector<double> &sorted, double part)
{
    const double position = part * (sorted.size() - 1);
    const int below = int(std::floor(position));
    const int above = int(std::ceil(position));
    return sorted.at(below) + (sorted.at(above) - sorted.at(below)) * (position - below);
}

} // namespace

Spread spreadOf(QVector<double> values)
{
    if (values.isEmpty())
        return Spread();
    std::sort(values.begin(), values.end());
    return {quantile(values, 0.5), quantile(values, 0.25), quantile(values, 0.75)};
}
