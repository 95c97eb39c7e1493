// The skeleton every request operation shares: a request record opened on a connection, closed
// with its controls and handed to the engine, and the _ext / _ext_s layers around a _direct form.
// Bind, search and the update operations differ only in their encoders and argument checks.
#ifndef WZR_LIBLDAP_LDAP_OPS_H
#define WZR_LIBLDAP_LDAP_OPS_H

#include "ldap_deadline.h"
#include "ldap_int.h"

// A non-owning reference to a callable, so the layers can take lambdas that capture the
// operation's arguments without allocating.
template <class Sig> class FnRef;
template <class R, class... A> class FnRef<R(A...)> {
public:
    template <class F>
    FnRef(F &f) // NOLINT: implicit by design
        : obj_(&f), call_([](void *o, A... a) -> R { return (*static_cast<F *>(o))(a...); })
    {
    }
    R operator()(A... a) const { return call_(obj_, a...); }

private:
    void *obj_;
    R (*call_)(void *, A...);
};

// A request under construction on one connection.
struct OpRequest {
    LDAP *ld;
    LDAPConn *lc;
    LDAPMessage *msg;
    BerElement *ber;
    int msgid;
};

// Finds the connection (`lc`, or the handle's default one), creates the request record, takes
// a message id and allocates the handle's FBER. Returns 0, or the recorded code (83 without a
// connection or table, 90 without memory, 82 without a message id) with nothing left to free.
[[nodiscard]] int ldap_op_begin(LDAP *ld, LDAPConn *lc, const char *no_conn_trace, OpRequest *op);

// Releases a request whose encoding failed (record, FBER and message id); records `code` and
// returns it.
int ldap_op_abort(OpRequest *op, int code);

// Appends the server controls (when a list with a first entry is given), closes the
// LDAPMessage and sends the request with `msgtype`. On success *msgidp is the id and 0 is
// returned; on failure everything is released and the recorded code returned.
[[nodiscard]] int ldap_op_finish(OpRequest *op, ber_tag_t msgtype, LDAPControl **sctrls,
                                 const LDAPDeadline &until, int *msgidp);

// A _direct call with the merged server controls: encodes and sends, storing the id.
using OpSend = FnRef<int(LDAPControl **sctrls, int *msgidp)>;
// An _ext call: starts the operation within the synchronous call's deadline, storing its id.
using OpStart = FnRef<int(const LDAPDeadline &until, int *msgidp)>;

// The _ext layer: *msgidp = -1; an invalid handle traces `invalid_trace` (one %p) and gives 89;
// then the operation bracket, 89 for `args_ok` false or a missing msgidp, 12 for a critical
// client control, the handle's default server controls merged with the given ones, `send`.
int ldap_op_ext(LDAP *ld, const char *invalid_trace, bool args_ok, LDAPControl **sctrls,
                LDAPControl **cctrls, int *msgidp, OpSend send);

// Trace texts of one operation's synchronous layer (any may be null).
struct OpSyncTraces {
    const char *invalid;       // one %p: the handle
    const char *start_failed;  // one %d: the code of the _ext call
    const char *result_failed; // one %d: the recorded code after ldap_result failed
};

// The _ext_s layer: turns `timeout` (when non-zero) into the call's one deadline, starts the
// operation, waits for all its results and returns ldap_result2error of the final result. With
// `res` the result is handed to the caller, else freed. A time-out abandons the operation,
// releases its row and returns 85.
int ldap_op_ext_s(LDAP *ld, const OpSyncTraces &traces, struct timeval *timeout, OpStart start,
                  LDAPMessage **res);

// The classic asynchronous forms: the message id on success, -1 otherwise. Call the _ext form
// first and pass its code: argument evaluation order would otherwise read the id too early.
inline int ldap_op_msgid(int rc, int msgid) { return rc == 0 ? msgid : -1; }

#endif
