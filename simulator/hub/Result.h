#ifndef RESULT_H
#define RESULT_H

#include <QJsonArray>
#include <QString>

#include <functional>

/// The outcome of a control line.
struct Result
{
    bool ok;
    QString text; ///< the answer, or what is wrong
    QJsonArray values; ///< what a D-Bus call returned

    static Result success(const QString &text = QString(), const QJsonArray &values = {})
    {
        return {true, text, values};
    }
    static Result failure(const QString &text) { return {false, text, {}}; }
};

/// Takes the outcome; called once, now or later.
using Done = std::function<void(const Result &)>;

#endif
