#!/usr/bin/env bash
# Tests scripts/ci/check-locked-names.sh on small sources written here: what
# it must let through, what it must refuse, and where it says the fault is.
set -euo pipefail
check="$(cd "$(dirname "$0")/../.." && pwd)/scripts/ci/check-locked-names.sh"
work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
failures=0

fail() {
  echo "FAILED: $*" >&2
  failures=$((failures + 1))
}

# Must pass: names that end in Locked, however the declaration is laid out;
# a predicate lambda; the macros' own definitions; annotations in comments
# and strings.
cat >"${work}/good.h" <<'CODE'
#define RC_REQUIRES(...) RC_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
class Store {
  void judgeLocked(std::vector<int>& due) RC_REQUIRES(mutex_);
  const Entry* findLocked(const std::string& id,
                          std::pair<int, int> range) const RC_REQUIRES_SHARED(mutex_);
  void moveLocked(int (*step)(int)) noexcept RC_EXCLUDES(other_) RC_REQUIRES(mutex_);
  // void judge() RC_REQUIRES(mutex_);
  /* bool idle() RC_REQUIRES(mutex_); */
  const char* text = "void judge() RC_REQUIRES(mutex_);";
  const char* raw = R"x(void judge() ")" RC_REQUIRES(mutex_);)x";
  bool wait() {
    return cv_.wait_for(mutex_, timeout, [&]() RC_REQUIRES(mutex_) { return idle_; });
  }
};
CODE
if ! output="$("${check}" "${work}/good.h" 2>&1)"; then
  fail "refused good.h: ${output}"
fi

# Must fail, naming each offender with its line.
cat >"${work}/bad.h" <<'CODE'
class Tracker {
  void judge(std::vector<int>& due) RC_REQUIRES(mutex_);
  bool deliver(int first,
               int second) const RC_EXCLUDES(other_) RC_REQUIRES_SHARED(mutex_);
  void holdDownLockedFor() RC_REQUIRES(mutex_);
  RC_REQUIRES(mutex_) void before();
};
CODE
if output="$("${check}" "${work}/bad.h" 2>&1)"; then
  fail "accepted bad.h"
fi
for expected in "bad.h:2: judge()" "bad.h:3: deliver()" "bad.h:5: holdDownLockedFor()" \
  "bad.h:6: cannot tell"; do
  grep -qF "${expected}" <<<"${output}" || fail "no \"${expected}\" in: ${output}"
done
[ "$(grep -c 'bad.h:' <<<"${output}")" -eq 4 ] || fail "not exactly four findings: ${output}"

# One bad file among good ones fails the whole run.
if "${check}" "${work}/good.h" "${work}/bad.h" >/dev/null 2>&1; then
  fail "accepted good.h with bad.h"
fi

if [ "${failures}" -ne 0 ]; then
  exit 1
fi
echo "LockedNamesCheckTest: passed"
