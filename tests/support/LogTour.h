// A tour of the library that writes every line it can write, from every
// component: for tests that check what reads the lines against what writes
// them (the log schema, the trace tool).
#pragma once

namespace veranda::reachabilityCache::test {

// Makes the library write every kind of line it writes, each at least once,
// in a fixed order. The lines go wherever the process's log goes (a test
// binary's recorder). Fails the running test when a step does not happen.
void writeEveryLine();

}  // namespace veranda::reachabilityCache::test
