// Scope of one running security engine inside the key tool.
#ifndef VARDO_TOOLS_CERT_IMPORT_ENGINE_SESSION_H
#define VARDO_TOOLS_CERT_IMPORT_ENGINE_SESSION_H

#include "SecurityService.h"

namespace OvraStream {

// Ends a started engine (SeFinalize, its result not examined) when the
// session goes out of scope. Callers open a block around the session where a
// record must come before or after the engine stops.
class EngineSession {
public:
    explicit EngineSession(const TagVardoConfig& config) : config_(config) {}
    ~EngineSession() { (void)SeFinalize(&config_); }
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;

private:
    const TagVardoConfig& config_;
};

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_ENGINE_SESSION_H
