#pragma once

#include "bench/Exchange.h"
#include "platform/xpc/value/Value.h"

namespace kestrine::bench {

inline platform::xpc::Value exchangeMessage(long number, bool wantsAnswer) {
  using platform::xpc::Value;
  return Value::dictionary({{"interface", Value::string(kInterface)},
                            {"selector", Value::string(kSelector)},
                            {"number", Value::int64(number)},
                            {"wantsAnswer", Value::boolean(wantsAnswer)}});
}

}  // namespace kestrine::bench
