#include "NimbOrraCore/OrraJSONCoding.h"

namespace nimborra::core {

JSONEncoder OrraJSONCoding::makeEncoder() {
    JSONEncoder encoder;
    encoder.dataEncodingStrategy = JSONEncoder::DataEncodingStrategy::base64;
    return encoder;
}

JSONDecoder OrraJSONCoding::makeDecoder() {
    JSONDecoder decoder;
    decoder.dataDecodingStrategy = JSONDecoder::DataDecodingStrategy::base64;
    return decoder;
}

}  // namespace nimborra::core
