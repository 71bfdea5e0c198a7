#include "NimbOrraCore/CodingError.h"

namespace nimborra::core {

std::string_view codingErrorKindName(CodingErrorKind kind) {
    switch (kind) {
        case CodingErrorKind::keyNotFound:
            return "keyNotFound";
        case CodingErrorKind::valueNotFound:
            return "valueNotFound";
        case CodingErrorKind::typeMismatch:
            return "typeMismatch";
        case CodingErrorKind::dataCorrupted:
            return "dataCorrupted";
        case CodingErrorKind::invalidValue:
            return "invalidValue";
    }
    return "codingError";
}

std::string CodingError::description() const {
    std::string text(codingErrorKindName(kind_));
    if (codingPath_.empty()) {
        text += " at the top level: ";
    } else {
        text += " at \"";
        text += codingPath_;
        text += "\": ";
    }
    text += detail_;
    return text;
}

}  // namespace nimborra::core
