#include "vault/PlistScalars.h"

#include <cstdint>
#include <cstdlib>

namespace qv {

std::optional<Value> QVPlistScalarValue(plist_t node) {
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return Value(b != 0);
    }
    case PLIST_UINT: {
        uint64_t u = 0;
        plist_get_uint_val(node, &u);
        return Value(static_cast<long long>(static_cast<int64_t>(u)));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return Value(d);
    }
    case PLIST_DATA: {
        char* d = nullptr;
        uint64_t length = 0;
        plist_get_data_val(node, &d, &length);
        Bytes bytes(reinterpret_cast<const uint8_t*>(d), reinterpret_cast<const uint8_t*>(d) + (d ? length : 0));
        std::free(d);
        return Value(std::move(bytes));
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        if (usec <= -1000000 || usec >= 1000000) return std::nullopt;
        return Value::date(double(sec) + double(usec) / 1e6 + kSecondsFrom1970To2001);
    }
    default:
        return std::nullopt;
    }
}

} // namespace qv
