/// Published source names and lines of the core. They travel inside exceptions and trace records and callers may know
/// them, so they are constants: moving code changes nothing. Numbers below the rule are published; do not change.
/// Internal: not installed.
#ifndef TALLOWIN_CORE_KVXLINES_H
#define TALLOWIN_CORE_KVXLINES_H

namespace kvx {

// clang-format off
inline constexpr char const* kSourceBase = "kvxbase";
inline constexpr char const* kSourceCtx  = "kvxctx";
inline constexpr char const* kSourceUrl  = "kvxurl";

inline constexpr long kLineCreatePath            = 55;   // kvxbase: mkdir failed

inline constexpr long kLineOpen                  = 23;   // trace "OPEN CONTEXT"
inline constexpr long kLineSetOption             = 38;   // unknown option
inline constexpr long kLineParse                 = 46;   // parser error
inline constexpr long kLineNoKvxElement          = 49;   // document without "KVX"
inline constexpr long kLineQueryNoContext        = 71;   // text look-up, empty path
inline constexpr long kLineRawQueryNoContext     = 112;  // raw read, empty path
inline constexpr long kLineRawQueryRead          = 131;  // raw read failed
inline constexpr long kLineUpdateRawNoContext    = 166;  // binary write, empty path
inline constexpr long kLineUpdateRawOpen         = 178;  // binary write, cannot open
inline constexpr long kLineUpdateRawWrite        = 181;  // binary write, short
inline constexpr long kLineUpdateNoContext       = 193;  // text write, empty path
inline constexpr long kLineUpdateOpen            = 205;  // text write, cannot open
inline constexpr long kLineUpdateWrite           = 212;  // text write, short
inline constexpr long kLineUpdateTrace           = 217;  // trace "UPDATE"
inline constexpr long kLineCaptureToken          = 620;  // capture without "TOKEN"
inline constexpr long kLineMissingSignature      = 722;  // confirmation without signature

// Not published before; kept stable all the same.
inline constexpr long kLineReadFile              = 98;
inline constexpr long kLineGenKey                = 240;
inline constexpr long kLineSignNoKey             = 255;
inline constexpr long kLineSignKeyBlob           = 263;
inline constexpr long kLineSignFailed            = 269;
inline constexpr long kLineVerifyNoKey           = 284;
inline constexpr long kLineVerifyKeyBlob         = 291;
inline constexpr long kLineVerifySignatureText   = 296;
inline constexpr long kLineVerifyFailed          = 304;
inline constexpr long kLineRequestUrl            = 322;
inline constexpr long kLineResponseError         = 348;
inline constexpr long kLineResponseType          = 352;
inline constexpr long kLineSetupEndpoint         = 371;
inline constexpr long kLineDefaultsEndpoint      = 402;
inline constexpr long kLineDefaultsTrace         = 421;
inline constexpr long kLineImportEndpoint        = 432;
inline constexpr long kLineImportTrace           = 457;
inline constexpr long kLinePublishEndpoint       = 468;
inline constexpr long kLinePublishKey            = 475;
inline constexpr long kLinePublishTrace          = 497;
inline constexpr long kLineReconfigureNoContext  = 508;
inline constexpr long kLineReconfigureStart      = 516;
inline constexpr long kLineReconfigureKeyId      = 529;
inline constexpr long kLineReconfigureOk         = 545;
inline constexpr long kLineCreateKeyId           = 563;
inline constexpr long kLineAttributeNoElement    = 579;
inline constexpr long kLineAttributeNotFound     = 588;
inline constexpr long kLineUrlNoElement          = 594;
inline constexpr long kLineUrlNoConfiguration    = 601;
inline constexpr long kLineCaptureNoElement      = 608;
inline constexpr long kLineCaptureNoUrl          = 615;
inline constexpr long kLineRequestNoElement      = 648;
inline constexpr long kLineRequestNoUrl          = 661;
inline constexpr long kLineOpenNoKeyId           = 729;
inline constexpr long kLineNoMessageContext      = 740;

// kvxurl:
inline constexpr long kLineOpenFile              = 41;
inline constexpr long kLineSplitUrl              = 52;
// clang-format on

}  // namespace kvx

#endif
