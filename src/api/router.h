// The route table: which operation a request names, and the rules that are common to all.
#ifndef ORV_API_ROUTER_H_
#define ORV_API_ROUTER_H_

#include "api/call.h"

namespace orv {

// Finds the operation, makes the checks of its row and runs it. The reply, good or bad, is left in
// `reply`, which is reset first. Out of memory comes as std::bad_alloc.
void api_route(LiveState& live, ApiReply& reply, const RoutedRequest& request);

}  // namespace orv

#endif  // ORV_API_ROUTER_H_
