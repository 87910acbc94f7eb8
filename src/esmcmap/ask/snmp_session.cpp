// The only file that knows the library. Its calls back come from within its reading and its timer alone; they
// only note what there is.
#include "esmcmap/ask/snmp_session.h"

#include <net-snmp/net-snmp-config.h>
// Its own order.
#include <net-snmp/library/large_fd_set.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <utility>

#include "esmcmap/model/read_json.h"

namespace esmcmap {

namespace {

// A variable of the environment that is empty for a moment. No other thread runs yet.
class borrowed_variable {
  public:
    explicit borrowed_variable(const char* of) : name(of) {
        if (const char* value = std::getenv(name)) before = value;
        setenv(name, "", 1);
    }
    ~borrowed_variable() {
        if (before)
            setenv(name, before->c_str(), 1);
        else
            unsetenv(name);
    }
    borrowed_variable(const borrowed_variable&) = delete;
    borrowed_variable& operator=(const borrowed_variable&) = delete;

  private:
    const char* name;
    std::optional<std::string> before;
};

void add_nameless_user();

void init_library() {
    static const bool done = [] {
        netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
        for (const int setting :
             {NETSNMP_DS_LIB_DONT_READ_CONFIGS, NETSNMP_DS_LIB_DONT_PERSIST_STATE,
              NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE})
            netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, setting, 1);
        // Certificates, which nothing here needs, would be looked for there.
        for (const int place : {NETSNMP_DS_LIB_PERSISTENT_DIR, NETSNMP_DS_LIB_CONFIGURATION_DIR})
            netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, place, "/dev/null");
        const borrowed_variable modules("MIBS"), places("MIBDIRS"), files("MIBFILES");
        init_snmp("esmcmap");
        add_nameless_user();
        return true;
    }();
    (void)done;
}

// In whose name an engine is asked for its identity (RFC 3414, section 4). The library frees it.
void add_nameless_user() {
    static usmUser* user = nullptr;  // the library's from here on
    user = static_cast<usmUser*>(std::calloc(1, sizeof(usmUser)));
    if (!user) throw std::bad_alloc();
    user->name = strdup("");
    user->secName = strdup("");
    user->authProtocolLen = OID_LENGTH(usmNoAuthProtocol);
    user->authProtocol = snmp_duplicate_objid(usmNoAuthProtocol, user->authProtocolLen);
    user->privProtocolLen = OID_LENGTH(usmNoPrivProtocol);
    user->privProtocol = snmp_duplicate_objid(usmNoPrivProtocol, user->privProtocolLen);
    usm_add_user(user);
}

// ---- Version 3 ----

struct protocol {
    const char* name;
    const oid* id;
    std::size_t length;
};

const protocol& protocol_of(const std::string& name) {
    static const protocol known[] = {
        {"MD5", usmHMACMD5AuthProtocol, OID_LENGTH(usmHMACMD5AuthProtocol)},
        {"SHA", usmHMACSHA1AuthProtocol, OID_LENGTH(usmHMACSHA1AuthProtocol)},
        {"SHA-224", usmHMAC128SHA224AuthProtocol, OID_LENGTH(usmHMAC128SHA224AuthProtocol)},
        {"SHA-256", usmHMAC192SHA256AuthProtocol, OID_LENGTH(usmHMAC192SHA256AuthProtocol)},
        {"SHA-384", usmHMAC256SHA384AuthProtocol, OID_LENGTH(usmHMAC256SHA384AuthProtocol)},
        {"SHA-512", usmHMAC384SHA512AuthProtocol, OID_LENGTH(usmHMAC384SHA512AuthProtocol)},
        {"DES", usmDESPrivProtocol, OID_LENGTH(usmDESPrivProtocol)},
        {"AES", usmAESPrivProtocol, OID_LENGTH(usmAESPrivProtocol)},
    };
    const auto* found =
        std::find_if(std::begin(known), std::end(known), [&](const protocol& p) { return name == p.name; });
    if (found == std::end(known)) throw std::runtime_error("no such protocol: " + name);
    return *found;
}

// A pass phrase becomes a key by a hash over a mebioctet: once for all switches that share it.
const std::vector<u_char>& key_of(const protocol& hash, const std::string& phrase) {
    static std::map<std::pair<const char*, std::string>, std::vector<u_char>> made;
    std::vector<u_char>& key = made[{hash.name, phrase}];
    if (!key.empty()) return key;
    std::size_t length = USM_AUTH_KU_LEN;
    key.resize(length);
    auto* octets = reinterpret_cast<const u_char*>(phrase.data());
    if (generate_Ku(hash.id, static_cast<u_int>(hash.length), octets, phrase.size(), key.data(), &length) !=
        SNMPERR_SUCCESS) {
        key.clear();
        throw std::runtime_error(std::string("this system's library can't do ") + hash.name);
    }
    key.resize(length);
    return key;
}

void set_user(const snmp_target& target, netsnmp_session& session) {
    session.version = SNMP_VERSION_3;
    session.securityModel = SNMP_SEC_MODEL_USM;
    session.securityName = const_cast<char*>(target.user.c_str());
    session.securityNameLen = target.user.size();
    session.securityLevel = SNMP_SEC_LEVEL_NOAUTH;
    session.flags |= SNMP_FLAGS_DONT_PROBE;  // it would wait
    if (target.auth.empty()) return;
    const protocol& hash = protocol_of(target.auth);
    session.securityLevel = target.priv.empty() ? SNMP_SEC_LEVEL_AUTHNOPRIV : SNMP_SEC_LEVEL_AUTHPRIV;
    session.securityAuthProto = const_cast<oid*>(hash.id);
    session.securityAuthProtoLen = hash.length;
    const std::vector<u_char>& key = key_of(hash, target.auth_pass);
    std::copy(key.begin(), key.end(), session.securityAuthKey);
    session.securityAuthKeyLen = key.size();
    if (target.priv.empty()) return;
    const protocol& cipher = protocol_of(target.priv);
    session.securityPrivProto = const_cast<oid*>(cipher.id);
    session.securityPrivProtoLen = cipher.length;
    const std::vector<u_char>& privacy = key_of(hash, target.priv_pass);
    std::copy_n(privacy.begin(), std::min<std::size_t>(privacy.size(), USM_PRIV_KU_LEN),
                session.securityPrivKey);
    session.securityPrivKeyLen = std::min<std::size_t>(privacy.size(), USM_PRIV_KU_LEN);
}

// Whether the phrase's key for this engine is another one. Of a cipher's key only its beginning is used.
bool differs(const netsnmp_session& of, const u_char* phrase_key, std::size_t length, const u_char* known,
             std::size_t known_length) {
    if (length == 0 || known_length == 0) return false;
    u_char made[SNMP_MAXBUF_SMALL];
    std::size_t made_length = sizeof made;
    return generate_kul(of.securityAuthProto, static_cast<u_int>(of.securityAuthProtoLen),
                        of.securityEngineID, of.securityEngineIDLen, phrase_key, length, made,
                        &made_length) != SNMPERR_SUCCESS ||
           std::memcmp(made, known, std::min(made_length, known_length)) != 0;
}

bool has_other_keys(const netsnmp_session& of, const usmUser& known) {
    const bool other_cipher = of.securityPrivKeyLen && known.privKeyLen &&
                              snmp_oid_compare(of.securityPrivProto, of.securityPrivProtoLen,
                                               known.privProtocol, known.privProtocolLen) != 0;
    return other_cipher ||
           differs(of, of.securityAuthKey, of.securityAuthKeyLen, known.authKey, known.authKeyLen) ||
           differs(of, of.securityPrivKey, of.securityPrivKeyLen, known.privKey, known.privKeyLen);
}

// Keys for the session's engine, which the library has noted in it. Empty, or why there are none. The library
// keeps the first ones that it got for an engine's user, and adds none to a user who had less.
std::string make_keys(netsnmp_session& of) {
    usmUser* known = usm_get_user(of.securityEngineID, of.securityEngineIDLen, of.securityName);
    if (known && has_other_keys(of, *known))
        return "a switch of the same engine identity has other pass phrases for this user";
    const auto lacks = [](std::size_t wanted, std::size_t there) { return wanted && !there; };
    if (known && (lacks(of.securityAuthKeyLen, known->authKeyLen) ||
                  lacks(of.securityPrivKeyLen, known->privKeyLen))) {
        usm_remove_user(known);
        usm_free_user(known);
    }
    return create_user_from_session(&of) == SNMPERR_SUCCESS ? "" : "can't make keys for its engine";
}

std::string words_of_report(int type) {
    switch (type) {
        case SNMPERR_UNKNOWN_USER_NAME:
            return "it knows no such user";
        case SNMPERR_AUTHENTICATION_FAILURE:
            return "wrong pass phrase, or another authentication protocol";
        case SNMPERR_UNSUPPORTED_SEC_LEVEL:
            return "its user has another security level";
        case SNMPERR_DECRYPTION_ERR:
            return "wrong privacy pass phrase or protocol";
        case SNMPERR_NOT_IN_TIME_WINDOW:
            return "its time and ours do not come together";
        default:
            return std::string("SNMP: ") + snmp_api_errstring(type);
    }
}

// ---- Values ----

mib_binding value_of(const netsnmp_variable_list& v) {
    mib_binding value;
    switch (v.type) {
        case ASN_INTEGER:
            value.type = mib_type::integer;
            value.number = *v.val.integer;
            break;
        case ASN_COUNTER:
        case ASN_GAUGE:
        case ASN_TIMETICKS:
            value.type = mib_type::unsigned_32;
            value.number = static_cast<std::uint32_t>(*v.val.integer);
            break;
        case ASN_COUNTER64:
            value.type = mib_type::counter_64;
            value.number = static_cast<std::int64_t>(std::min<std::uint64_t>(
                std::uint64_t{static_cast<std::uint32_t>(v.val.counter64->high)} << 32 |
                    static_cast<std::uint32_t>(v.val.counter64->low),
                INT64_MAX));
            break;
        case ASN_OCTET_STR:
            value.type = mib_type::octets;
            value.octets.assign(reinterpret_cast<const char*>(v.val.string), v.val_len);
            break;
        default:
            break;
    }
    return value;
}

std::vector<named_value> values_of(const netsnmp_pdu& pdu) {
    std::vector<named_value> values;
    for (const netsnmp_variable_list* v = pdu.variables; v; v = v->next_variable) {
        named_value one;
        for (std::size_t i = 0; i < v->name_length; ++i)
            one.name.push_back(static_cast<std::uint32_t>(v->name[i]));
        one.exists =
            v->type != SNMP_NOSUCHOBJECT && v->type != SNMP_NOSUCHINSTANCE && v->type != SNMP_ENDOFMIBVIEW;
        one.value = value_of(*v);
        values.push_back(std::move(one));
    }
    return values;
}

}  // namespace

struct snmp_session::inner {
    void* handle = nullptr;
    bool finding = false;  // the request is for the engine's identity
    std::optional<snmp_reply> reply;

    netsnmp_session* session() const { return snmp_sess_session(handle); }
    void fail(std::string why) { reply = {snmp_reply::kind::failed, {}, std::move(why)}; }

    // 1: the request is done; 0: the library is to go on with it.
    int heard(const netsnmp_pdu& pdu) {
        if (pdu.command == SNMP_MSG_REPORT) return reported(const_cast<netsnmp_pdu&>(pdu));
        if (pdu.command != SNMP_MSG_RESPONSE) return 0;
        if (finding)
            fail("it answers where it should tell its engine");
        else if (pdu.errstat == SNMP_ERR_TOOBIG)
            reply = {snmp_reply::kind::too_big, {}, {}};
        else if (pdu.errstat != SNMP_ERR_NOERROR)
            fail(std::string("its agent refuses: ") + snmp_errstring(static_cast<int>(pdu.errstat)));
        else
            reply = {snmp_reply::kind::values, values_of(pdu), {}};
        return 1;
    }

    int reported(netsnmp_pdu& pdu) {
        const int type = snmpv3_get_report_type(&pdu);
        if (finding && pdu.securityEngineIDLen > 0)
            reply = {snmp_reply::kind::found, {}, {}};
        else if (type != SNMPERR_NOT_IN_TIME_WINDOW)  // that one is answered by asking again with its time
            fail(words_of_report(type));
        return 1;
    }

    void unsent() {
        const netsnmp_session& of = *session();
        const char* why = of.s_errno ? std::strerror(of.s_errno) : snmp_api_errstring(of.s_snmp_errno);
        reply = {snmp_reply::kind::unsent, {}, std::string("can't send: ") + why};
    }

    void failed(int operation) {
        if (reply) return;
        if (operation == NETSNMP_CALLBACK_OP_TIMED_OUT) return fail("no answer in time");
        if (operation == NETSNMP_CALLBACK_OP_SEND_FAILED) return unsent();
        fail(words_of_report(session()->s_snmp_errno));
    }

    static int called_back(int operation, netsnmp_session*, int, netsnmp_pdu* pdu, void* magic) {
        auto* self = static_cast<inner*>(magic);
        if (operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) return pdu ? self->heard(*pdu) : 0;
        constexpr int FAILURES[] = {NETSNMP_CALLBACK_OP_TIMED_OUT, NETSNMP_CALLBACK_OP_SEND_FAILED,
                                    NETSNMP_CALLBACK_OP_SEC_ERROR};
        if (std::count(std::begin(FAILURES), std::end(FAILURES), operation)) self->failed(operation);
        return 1;
    }

    // The library takes the PDU when it has sent it.
    void send(netsnmp_pdu* pdu) {
        reply.reset();
        session()->s_errno = 0;
        if (snmp_sess_async_send(handle, pdu, called_back, this)) return;
        snmp_free_pdu(pdu);
        failed(NETSNMP_CALLBACK_OP_SEND_FAILED);
    }
};

void snmp_session::prepare(const snmp_target& target) {
    init_library();
    netsnmp_session unused;
    snmp_sess_init(&unused);
    if (target.version_3) set_user(target, unused);
}

snmp_session::snmp_session(const snmp_target& target, const std::string& peer,
                           std::chrono::milliseconds again)
    : in(std::make_unique<inner>()) {
    netsnmp_session session;
    snmp_sess_init(&session);
    session.peername = const_cast<char*>(peer.c_str());
    session.timeout = std::chrono::microseconds(again).count();
    session.retries = 100;  // whoever asks ends it
    if (target.version_3) {
        set_user(target, session);
    } else {
        session.version = SNMP_VERSION_2c;
        session.community = reinterpret_cast<u_char*>(const_cast<char*>(target.community.c_str()));
        session.community_len = target.community.size();
    }
    in->handle = snmp_sess_open(&session);
    if (!in->handle)
        throw std::runtime_error(std::string("can't open a session: ") +
                                 snmp_api_errstring(session.s_snmp_errno));
    in->session()->flags |= session.flags & SNMP_FLAGS_DONT_PROBE;
}

snmp_session::~snmp_session() {
    snmp_sess_close(in->handle);
}

int snmp_session::descriptor() const {
    return snmp_sess_transport(in->handle)->sock;
}

std::chrono::milliseconds snmp_session::next_try() const {
    netsnmp_large_fd_set unused;
    netsnmp_large_fd_set_init(&unused, FD_SETSIZE);
    int count = 0, block = 1;
    timeval left = {};
    snmp_sess_select_info2(in->handle, &count, &unused, &left, &block);
    netsnmp_large_fd_set_cleanup(&unused);
    const auto exact = std::chrono::seconds(left.tv_sec) + std::chrono::microseconds(left.tv_usec);
    return block ? std::chrono::hours(1) : std::chrono::ceil<std::chrono::milliseconds>(exact);
}

void snmp_session::find_engine() {
    netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_GET);
    if (!pdu) throw std::bad_alloc();
    pdu->version = SNMP_VERSION_3;
    pdu->securityName = strdup("");
    pdu->securityNameLen = 0;
    pdu->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
    pdu->securityModel = SNMP_SEC_MODEL_USM;
    in->finding = true;
    in->send(pdu);
}

void snmp_session::get_next(const object_name& after, int repetitions, const object_name* scalar) {
    netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_GETBULK);
    if (!pdu) throw std::bad_alloc();
    pdu->non_repeaters = scalar ? 1 : 0;
    pdu->max_repetitions = repetitions;
    const auto add = [&](const object_name& name) {
        const std::vector<oid> id(name.begin(), name.end());
        snmp_add_null_var(pdu, id.data(), id.size());
    };
    if (scalar) add(*scalar);
    add(after);
    in->finding = false;
    in->send(pdu);
}

std::optional<snmp_reply> snmp_session::take(bool readable) {
    if (readable) {
        netsnmp_large_fd_set ready;
        netsnmp_large_fd_set_init(&ready, FD_SETSIZE);
        NETSNMP_LARGE_FD_ZERO(&ready);
        NETSNMP_LARGE_FD_SET(descriptor(), &ready);
        (void)snmp_sess_read2(in->handle, &ready);  // what is no answer is dropped
        netsnmp_large_fd_set_cleanup(&ready);
    }
    if (!in->reply) snmp_sess_timeout(in->handle);
    std::optional<snmp_reply> reply = std::exchange(in->reply, std::nullopt);
    if (!reply || reply->what != snmp_reply::kind::found) return reply;
    std::string wrong = make_keys(*in->session());
    if (wrong.empty()) return reply;
    return snmp_reply{snmp_reply::kind::failed, {}, std::move(wrong)};
}

}  // namespace esmcmap
