// `orv_api pin`: a server joins the list once somebody has compared its fingerprint.
#ifndef ORV_CLIENT_PIN_H_
#define ORV_CLIENT_PIN_H_

#include "client/arguments.h"

namespace orv {

// Shows the certificate's fingerprint, asks on standard input, and adds the server on the answer
// "yes". A server that is listed with another fingerprint is shown with both and left as it is.
// Sends no request. The exit status.
[[nodiscard]] int pin_server(const Arguments& given);

}  // namespace orv

#endif  // ORV_CLIENT_PIN_H_
