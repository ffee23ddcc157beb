#include "Table.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

namespace {

const char *sign(Row::Comparison comparison)
{
    switch (comparison) {
    case Row::Comparison::Ratio:
        return "x ";
    case Row::Comparison::Difference:
        return "+ ";
    case Row::Comparison::Absolute:
        break;
    }
    return "";
}

/// Two decimals below ten, one below a hundred; a whole number is told as one.
QString number(double value)
{
    const double size = qAbs(value);
    if (value == double(qRound64(value)))
        return QString::number(qRound64(value));
    return QString::number(value, 'f', size < 10 ? 2 : size < 100 ? 1 : 0);
}

QString withUnit(double value, const QString &unit)
{
    return unit.isEmpty() ? number(value) : number(value) + ' ' + unit;
}

QString range(const Spread &spread)
{
    return spread.low == spread.high
        ? QString()
        : QString(" (%1 .. %2)").arg(number(spread.low), number(spread.high));
}

QStringList cells(const Row &row)
{
    const QString unit = row.comparison == Row::Comparison::Ratio ? QString() : row.unit;
    QString compared = sign(row.comparison) + withUnit(row.compared.median, unit);
    return {row.what,
            withUnit(row.measured.median, row.unit),
            withUnit(row.baseline.median, row.unit),
            compared.replace("+ -", "- ") + range(row.compared),
            sign(row.comparison) + withUnit(row.bar, unit),
            row.isMet() ? "met" : "MISSED",
            row.note.isEmpty() ? row.against : row.against + "; " + row.note};
}

QJsonObject toJson(const Spread &spread)
{
    return {{"median", spread.median}, {"low", spread.low}, {"high", spread.high}};
}

} // namespace

QString tableOf(const QVector<Row> &rows)
{
    QVector<QStringList> lines {
        {"what", "service", "baseline", "compared (quartiles)", "bar", "", "baseline is"}};
    for (const Row &row : rows)
        lines.append(cells(row));

    QVector<int> widths(lines.first().size(), 0);
    for (const QStringList &line : lines) {
        for (int column = 0; column < line.size(); ++column)
            widths[column] = qMax(widths.at(column), line.at(column).size());
    }
    QString table;
    for (const QStringList &line : lines) {
        QString text;
        for (int column = 0; column < line.size(); ++column)
            text += line.at(column).leftJustified(widths.at(column) + 2);
        table += text.trimmed() + '\n';
    }
    return table;
}

QByteArray jsonOf(const QVector<Row> &rows)
{
    const char *const comparisons[] = {"ratio", "difference", "absolute"};
    QJsonArray array;
    for (const Row &row : rows)
        array.append(QJsonObject {{"what", row.what},
                                  {"unit", row.unit},
                                  {"service", toJson(row.measured)},
                                  {"baseline", toJson(row.baseline)},
                                  {"against", row.against},
                                  {"comparison", comparisons[int(row.comparison)]},
                                  {"compared", toJson(row.compared)},
                                  {"bar", row.bar},
                                  {"met", row.isMet()},
                                  {"note", row.note}});
    return QJsonDocument(QJsonObject {{"rows", array}}).toJson();
}
