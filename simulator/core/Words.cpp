#include "Words.h"

#include <QDBusObjectPath>
#include <QDBusVariant>

#include <algorithm>
#include <numeric>

namespace {

/// How many letters must be put in, left out or changed to make \p to of \p from.
int distance(const QString &from, const QString &to)
{
    QVector<int> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (int i = 0; i < from.size(); ++i) {
        int diagonal = row[0];
        row[0] = i + 1;
        for (int j = 0; j < to.size(); ++j) {
            const int changed = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, diagonal + 1});
        }
    }
    return row.last();
}

/// An invalid value when \p word is not TYPE:VALUE.
QVariant parseTypedArgument(const QString &word)
{
    const QString type = word.section(':', 0, 0);
    const QString text = word.section(':', 1);
    bool ok = word.contains(':');
    QVariant value = text;
    if (type == "i") {
        value = text.toInt(&ok);
    } else if (type == "u") {
        value = text.toUInt(&ok);
    } else if (type == "b") {
        ok = text == "true" || text == "false";
        value = text == "true";
    } else if (type == "o") {
        value = QVariant::fromValue(QDBusObjectPath(text));
        ok = !value.value<QDBusObjectPath>().path().isEmpty();
    } else if (type == "as") {
        value = text.split(',', Qt::SkipEmptyParts);
    } else if (type == "v") {
        const QVariant content = parseTypedArgument(text);
        ok = content.isValid();
        value = QVariant::fromValue(QDBusVariant(content));
    } else if (type != "s") {
        ok = false;
    }
    return ok ? value : QVariant();
}

} // namespace

QString unknownWord(const QString &what, const QString &word, const QStringList &known)
{
    QString nearest;
    int least = qMax(2, word.size() / 3) + 1;
    for (const QString &candidate : known) {
        const int difference =
            candidate.startsWith(word) && word.size() > 1 ? 0 : distance(word, candidate);
        if (difference < qMin(least, candidate.size())) {
            least = difference;
            nearest = candidate;
        }
    }
    const QString text = QString("there is no %1 \"%2\"").arg(what, word);
    return nearest.isEmpty() ? text : text + "; did you mean \"" + nearest + "\"?";
}

bool parseTypedArguments(const QStringList &words, QVariantList *arguments, QString *error)
{
    for (const QString &word : words) {
        const QVariant value = parseTypedArgument(word);
        if (!value.isValid()) {
            *error = QString("\"%1\" is not TYPE:VALUE with a type of s i u b o as v").arg(word);
            return false;
        }
        arguments->append(value);
    }
    return true;
}
