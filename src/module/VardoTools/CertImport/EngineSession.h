// Scope of one running security engine inside the key tool.
#ifndef VARDO_TOOLS_CERT_IMPORT_ENGINE_SESSION_H
#define VARDO_TOOLS_CERT_IMPORT_ENGINE_SESSION_H

#include "SecurityService.h"

namespace OvraStream {

// Ends a started engine exactly once: explicitly (Finish) where the order of
// records matters, otherwise when the session goes out of scope.
class EngineSession {
public:
    explicit EngineSession(const TagVardoConfig& config) : config_(config) {}
    ~EngineSession() { Finish(); }
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;

    void Finish()
    {
        if (running_) {
            running_ = false;
            (void)SeFinalize(&config_);
        }
    }

private:
    const TagVardoConfig& config_;
    bool running_ = true;
};

}  // namespace OvraStream

#endif  // VARDO_TOOLS_CERT_IMPORT_ENGINE_SESSION_H
