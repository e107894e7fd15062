#pragma once
// Deliveries without a single byte. The C++ binding throws at them before any handler is called,
// which ends the container and with it the connection; the broker delivers them again, for ever. So
// this module looks at each event before the binding gets it, by standing between the binding and
// pn_event_batch_next (proton/event.h), and settles such deliveries itself. Every other event, and
// every other user of the C library in this process, is left alone.

// To be called once on the container thread, whose receiving links have their qpid_receiver as
// context.
void kv_qpid_watch_deliveries();
