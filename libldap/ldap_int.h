// The library's shared records: the LDAP handle, its connections, the message table and its
// rows, message records, controls and per-thread error records. Each field shared between
// threads names the lock that guards it; the lock order is written in ldap_lock.h.
#ifndef WZR_LIBLDAP_LDAP_INT_H
#define WZR_LIBLDAP_LDAP_INT_H

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <sys/time.h>

#include "../liblber/ber_memory.h"
#include "../liblber/lber.h"
#include "../trace/ldap_trace.h"
#include "ldap_lock.h"
#include "wzrldap.h"

struct LDAPConn;
struct LDAPMsgTable;
struct LDAPAttrIndex;

// A control: OID, value, criticality. Lists are null-terminated arrays of pointers.
struct LDAPControl {
    char *ldctl_oid;
    struct berval ldctl_value;
    char ldctl_iscritical;
};

// One thread's last error in a handle. Guarded by the handle's error lock; `thread` and `next`
// never change once the record is in the list, and only the record's own thread writes the
// other fields, so that thread may also read them without the lock.
struct LDAPErrorRec {
    pthread_t thread;
    int32_t ld_errno;
    int32_t ext_error;
    char *matched;
    char *errmsg;
    LDAPErrorRec *next;
};

inline constexpr char LDAP_EYE_HANDLE[8] = {'L', 'D', 'A', 'P', ' ', 'H', 'D', 'L'};
inline constexpr char LDAP_EYE_ALIVE[8] = {'E', 'Y', 'E', 'A', 'L', 'I', 'V', 'E'};
inline constexpr char LDAP_EYE_DEAD[7] = {'E', 'Y', 'E', 'D', 'E', 'A', 'D'};

// One received PDU or one request waiting in its row. Only the row's owner touches a record
// handed out by ldap_result; records in a row's chain are guarded by the table lock.
struct ldapmsg {
    int32_t lm_msgid;
    int32_t lm_msgtype; // protocol operation tag; 48 in a fresh record
    uint32_t lm_flags;  // LDAP_MSG_SINGLE, LDAP_MSG_PUT_BACK
    BerElement *lm_ber;
    LDAPConn *lm_conn;
    ldapmsg *lm_chain; // next in the row's chain, also the queue link
    ldapmsg *lm_prev;
    // Entries only: the attribute index (ldap_attr_index.cpp), built on first use by whichever
    // thread walks the entry first and published once; read and written through std::atomic_ref.
    LDAPAttrIndex *lm_attr_index;
    char lm_eyecatcher[8]; // "EYEALIVE" while alive
};
inline constexpr uint32_t LDAP_MSG_SINGLE = 2;
// In a row's chain: taken by a wait that timed out and put back, so it comes before anything
// a referral child still has to deliver.
inline constexpr uint32_t LDAP_MSG_PUT_BACK = 4;

// {table, row}: names the row of a referral parent or child.
struct LDAPRowLink {
    LDAPMsgTable *table;
    int32_t row;
    const char *url; // a child link's: the URL followed, stored in the same allocation
};

// Row flags.
inline constexpr uint32_t ROW_IN_USE = 1;
inline constexpr uint32_t ROW_COMPLETE = 2;
inline constexpr uint32_t ROW_POLICY_SET = 4;
inline constexpr uint32_t ROW_CHASE = 8;
inline constexpr uint32_t ROW_ABANDONED = 16;
inline constexpr uint32_t ROW_RELEASE_WHEN_DONE = 32;

// A message id names its row by its low 16 bits and the row's generation by the bits above,
// so a response that arrives for an operation whose row was released (abandoned, timed out)
// and handed out again can never be taken for the new operation's. A row's first id is its
// index (generation 0); each release moves the generation on.
inline constexpr int LDAP_MSGID_ROW_BITS = 16;
inline constexpr uint32_t LDAP_MSGID_ROW_MASK = 0xFFFF;
inline constexpr uint32_t LDAP_MSGID_GENERATIONS = 0x8000; // ids stay positive 32-bit values

// One message id's row. Guarded by its table's table lock; addressed only by index. The chain
// holds only responses no caller has taken: a response handed out leaves its row.
struct LDAPMsgRow {
    pthread_t owner;          // collecting thread; 0 while unclaimed
    ldapmsg *request;         // the encoded request
    ldapmsg *first;           // response chain
    ldapmsg *last;
    ldapmsg *next_undelivered;
    uint32_t flags;
    int32_t hop_limit;
    LDAPRowLink *parent;
    LDAPRowLink *child;
    void *pending_referral;   // combined result of a chased referral
    int32_t referral_error;   // release-on-free mark
    ldapmsg *saved_result;
    uint32_t generation;      // kept when the row is cleared, then moved on
};

inline constexpr uint32_t LDAP_TABLE_INITIAL_ROWS = 256;
inline constexpr uint32_t LDAP_TABLE_GROWTH = 256;
inline constexpr uint32_t LDAP_MAX_TBL_SIZE = 65536;

// A thread asleep on a table until a response for its row is filed, the reading turn is
// offered to it, or everything must look again (an abandon, a dead connection). Each thread
// has one, made on its first wait.
struct LDAPWaiter {
    LDAPEvent event;    // slept on with the table lock released
    int32_t msgid;      // table_lock: the id whose responses it waits for
    int32_t woken;      // table_lock
    LDAPWaiter *prev;   // table_lock
    LDAPWaiter *next;   // table_lock
};

// The message table of one connection. Lock order: table_lock before queue_lock.
struct LDAPMsgTable {
    LDAPMsgRow *rows;            // table_lock
    LDAPConn *owner;             // fixed after creation
    pthread_mutex_t table_lock;
    pthread_cond_t released;     // broadcast whenever an id is released
    int32_t free_rows;           // table_lock
    uint32_t row_count;          // table_lock
    ldapmsg *queue_head;         // queue_lock
    ldapmsg *queue_tail;         // queue_lock
    pthread_mutex_t queue_lock;
    int32_t last_msgid;          // table_lock: the row index of the id last handed out
    int32_t last_shared_row;     // table_lock
    ldapmsg *read_state;         // the connection's read lock: a partly read PDU
    uint32_t read_progress;      // the connection's read lock: progress word of read_state
    // The reading turn: one waiting thread at a time reads the socket; the others sleep, each
    // on its own wait record and with its own time-out. Filing a response wakes the thread
    // that waits for its row and no other; a thread that leaves while nobody reads offers the
    // turn to the oldest sleeper, so that exactly one takes it over.
    LDAPWaiter *waiters;         // table_lock: asleep on this table, oldest first
    LDAPWaiter *waiters_tail;    // table_lock
    LDAPWaiter *heir;            // table_lock: offered the turn and not yet up, or null
    int32_t reader_active;       // table_lock: a thread holds the reading turn
    // Written to wake the thread that holds the reading turn out of its wait on the socket
    // when a row it may be reading for was released (an abandon from another thread); -1
    // when none could be made. Fixed after creation.
    int wake_fd;
};

// One server connection of a handle.
struct LDAPConn {
    char *host;            // space-separated host list; fixed after creation
    char *resolved;        // write_lock
    int32_t port;          // default port of entries without one
    Sockbuf sb;            // sb_sd set under write_lock while opening
    int32_t connected;     // write_lock (read without it by readers after the open)
    LDAPMsgTable *table;   // owned; fixed after creation
    pthread_mutex_t conn_mutex;  // guards bind_ctrls
    pthread_mutex_t read_lock;   // one reader at a time; guards the table's read state
    pthread_mutex_t write_lock;  // one writer at a time; also guards opening
    LDAPConn *next;        // the handle's connection lock
    LDAPControl **bind_ctrls; // response controls of the last bind; conn_mutex
    LDAP *ld;              // back pointer
    void *plugin;          // plug-in record bound to this connection
    int32_t dead;          // set once an open or a read/write failed; never cleared
    // The unwritten tail of a request whose writer's time ran out in the middle of it: the
    // next writer sends it first, so the stream stays in step. write_lock.
    unsigned char *outbox;
    long outbox_len;
    struct WzrEnvRef *ssl_ref; // toolkit environment of a secure connection; write_lock
    pthread_t reader;      // read_lock: the thread now reading
    int32_t stream_run;    // read_lock: entries and references read in a row
    // The server's pace while a result streams in (read_lock): when the reader last looked at
    // it, stream_run then, the pause it took, and the smoothed time between two streamed PDUs.
    int64_t stream_mark_ns;
    int32_t stream_mark_run;
    int64_t stream_last_pause_ns;
    int64_t stream_pace_ns;
};

// The handle.
struct ldap {
    char ld_eyecatcher[8]; // "LDAP HDL" while alive
    int32_t ld_version;    // protocol version, option 17; ld_mutex
    uint32_t ld_opcount;   // operations in progress not noted per thread; atomic (ldap_start_operation)
    LDAPControl **ld_sctrls; // default server controls; ld_mutex
    LDAPControl **ld_cctrls; // default client controls; ld_mutex
    LDAPConn *ld_defconn;
    LDAPConn *ld_servers;  // head of the connection chain; ld_connlock
    pthread_mutex_t ld_mutex;    // the handle mutex: opcount, unbind flag, options
    pthread_mutex_t ld_errlock;  // the error lock: ld_errors only
    pthread_mutex_t ld_connlock; // the connection lock: connection chain
    pthread_cond_t ld_ops_ended; // broadcast by ldap_end_operation
    int32_t ld_unbind_started;   // atomic, set once under ld_mutex (ldap_start_operation)
    int32_t ld_ssl_in_use;       // set up for secure transport (ldaps:// or ldap_ssl_start)
    int32_t ld_ssl_reason;       // atomic: the toolkit's code of the last secure failure
    // Changed under ld_errlock; pushed at the head with a release store, so that a thread may
    // find its own record without the lock (ldap_error.cpp).
    LDAPErrorRec *ld_errors;
    pthread_mutex_t ld_reflock;  // created last; for referral chasing state
    char *ld_defhost;
    int32_t ld_defport;

    // Options (ld_mutex for callers of ldap_set_option; the library's own code reads them
    // through ldap_get_option_direct).
    int32_t ld_sizelimit;     // 0
    int32_t ld_timelimit;     // 1
    int32_t ld_referrals;     // 2
    int32_t ld_deref;         // 3
    int32_t ld_restart;       // 4
    int32_t ld_hoplimit;      // 5 and 53
    int32_t ld_ssl_timeout;   // 8
    void *ld_rebind_proc;     // 9
    int32_t ld_utf8_io;       // 52: application strings are already UTF-8
    int32_t ld_krb_version;   // 54
    struct timeval *ld_connect_timeout; // 70
    char *ld_ssl_keyring;     // 7: key database of the secure transport
    char *ld_ssl_keyring_pw;  // 152: its password (else its stash file is used)
    char *ld_ssl_label;       // 153: label of the client certificate
    int32_t ld_bind_flag;     // 224
    int32_t ld_default_field; // set to 128 in the global default handle

    // Bind parameters kept for rebinding on referral servers; ld_mutex.
    int32_t ld_authmethod;
    char *ld_bind_mech;
    char *ld_bind_dn;
    struct berval ld_bind_cred;
    LDAPControl **ld_bind_sctrls;
    LDAPControl **ld_bind_cctrls;
};

// ldap_result modes.
inline constexpr int LDAP_MSG_ONE = 0;
inline constexpr int LDAP_MSG_ALL = 1;
inline constexpr int LDAP_MSG_RECEIVED = 2;

// Request tags.
inline constexpr ber_tag_t LDAP_REQ_BIND = 0x60;
inline constexpr ber_tag_t LDAP_REQ_UNBIND = 0x42;
inline constexpr ber_tag_t LDAP_REQ_SEARCH = 0x63;
inline constexpr ber_tag_t LDAP_REQ_MODIFY = 0x66;
inline constexpr ber_tag_t LDAP_REQ_ADD = 0x68;
inline constexpr ber_tag_t LDAP_REQ_DELETE = 0x4a;
inline constexpr ber_tag_t LDAP_REQ_MODRDN = 0x6c;
inline constexpr ber_tag_t LDAP_REQ_COMPARE = 0x6e;
inline constexpr ber_tag_t LDAP_REQ_ABANDON = 0x50;
inline constexpr ber_tag_t LDAP_REQ_EXTENDED = 0x77;
inline constexpr ber_tag_t LDAP_TAG_CONTROLS = 0xa0;
inline constexpr ber_tag_t LDAP_TAG_REFERRAL = 0xa3;
inline constexpr ber_tag_t LDAP_TAG_EXOP_RES_OID = 0x8a;
inline constexpr ber_tag_t LDAP_TAG_EXOP_RES_VALUE = 0x8b;
inline constexpr ber_tag_t LDAP_TAG_SASL_RES_CREDS = 0x87;

inline constexpr const char *LDAP_NOTICE_OF_DISCONNECTION = "1.3.6.1.4.1.1466.20036";

#endif
