// check: what in a dictionary directory does not agree, and --repair for what can be fixed without
// losing a registered person.
#include <cstdio>

#include <msmface/store.h>

#include "commands/commands.h"

namespace msmcli {

int runCheck(const CheckOptions& o) {
    msmface::LockOptions lock;
    lock.wait = !o.noWait;
    lock.notice = [](const std::string& m) { std::fprintf(stderr, "msmface: %s\n", m.c_str()); };
    const msmface::Result<msmface::StoreReport> r =
        o.repair ? msmface::repairStore(o.dir, lock) : msmface::checkStore(o.dir);
    if (!r.ok()) return fail(r.message());
    for (const std::string& line : r->repaired) std::printf("repaired: %s\n", line.c_str());
    // Nothing when the kind file does not read: a problem then says why.
    const std::string kind =
        r->patterns ? std::string(", ") + msmface::patternKindName(*r->patterns) + " patterns" : "";
    std::printf("%s: %d person%s listed%s; %zu problem%s\n", o.dir.c_str(), r->persons,
                r->persons == 1 ? "" : "s", kind.c_str(), r->problems.size(),
                r->problems.size() == 1 ? "" : "s");
    for (const msmface::StoreProblem& p : r->problems)
        std::printf("  %s%s\n", p.message.c_str(),
                    p.repairable && !o.repair ? " (check --repair fixes this)" : "");
    return r->problems.empty() ? 0 : kExitFailure;
}

}  // namespace msmcli
