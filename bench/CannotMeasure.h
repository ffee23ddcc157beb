#ifndef CANNOTMEASURE_H
#define CANNOTMEASURE_H

#include <QString>

#include <stdexcept>

/// Something that a measurement needs is not there or did not happen; what() says it.
class CannotMeasure : public std::runtime_error
{
public:
    explicit CannotMeasure(const QString &reason) : std::runtime_error(reason.toStdString()) { }
};

#endif
