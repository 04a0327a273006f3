#include "client/ctl/session_options.h"

#include "client/ctl/interrupt.h"

namespace kestrune {

session_options_t session_options(const options_t &options)
{
    session_options_t session;
    session.connect_time = options.connect_time;
    session.answer_time = options.answer_time;
    session.interrupt_fd = interrupt_fd();
    // An interrupted --wait must know whether its rule was added, in order to remove it.
    session.finish_requests = options.wait;
    return session;
}

} // namespace kestrune
