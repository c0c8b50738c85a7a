// sinkturn.h: whose turn it is to call a sink of the host, of the trace or of the log.
//
// Sinks are called one at a time, and a sink that was replaced is not running any more when the
// call that replaced it returns: both are one mutex, held while a sink runs and while one is
// replaced. There is one for both services, since the sink of either may use the other: with two, a
// trace sink that logs and a log sink that traces, in two threads, would wait for each other. A
// thread that is inside a sink has its turn already and does not wait again.
//
// What goes to a file or to the standard error takes no turn, nor does what only the ring keeps.
#pragma once

class SinkTurn {
  public:
    SinkTurn();
    ~SinkTurn();
    SinkTurn(const SinkTurn&) = delete;
    SinkTurn& operator=(const SinkTurn&) = delete;
};
