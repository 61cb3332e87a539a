/// The published sources and lines of the core; core/kvxsource.h says why they are constants. Do not change.
/// Internal: not installed.
#ifndef TALLOWIN_CORE_KVXLINES_CORE_H
#define TALLOWIN_CORE_KVXLINES_CORE_H

#include "core/kvxsource.h"

namespace kvx {

// clang-format off
inline constexpr KvxSource kSourceBase{"kvxbase"};
inline constexpr long kLineCreatePath            = 55;   // mkdir failed

inline constexpr KvxSource kSourceCtx{"kvxctx"};
inline constexpr long kLineOpen                  = 23;   // trace "OPEN CONTEXT"
inline constexpr long kLineSetOption             = 38;   // unknown option
inline constexpr long kLineParse                 = 46;   // parser error
inline constexpr long kLineNoKvxElement          = 49;   // document without "KVX"
inline constexpr long kLineQueryNoContext        = 71;   // text lookup, empty path
inline constexpr long kLineReadFile              = 98;   // local file, read failed
inline constexpr long kLineRawQueryNoContext     = 112;  // raw read, empty path
inline constexpr long kLineRawQueryRead          = 131;  // raw read failed
inline constexpr long kLineSetValueName          = 148;  // value with a name that no reader finds again
inline constexpr long kLineUpdateRawNoContext    = 166;  // binary write, empty path
inline constexpr long kLineUpdateRawOpen         = 178;  // binary write, cannot open
inline constexpr long kLineUpdateRawWrite        = 181;  // binary write, short
inline constexpr long kLineUpdateNoContext       = 193;  // text write, empty path
inline constexpr long kLineUpdateOpen            = 205;  // text write, cannot open
inline constexpr long kLineUpdateWrite           = 212;  // text write, short
inline constexpr long kLineUpdateTrace           = 217;  // trace "UPDATE"
inline constexpr long kLineGenKey                = 240;  // key generation failed
inline constexpr long kLineSignNoKey             = 255;  // no private key
inline constexpr long kLineSignKeyBlob           = 263;  // private key is no hexadecimal text
inline constexpr long kLineSignFailed            = 269;  // signing failed
inline constexpr long kLineVerifyNoKey           = 284;  // no public key
inline constexpr long kLineVerifyKeyBlob         = 291;  // public key is no hexadecimal text
inline constexpr long kLineVerifySignatureText   = 296;  // signature is no hexadecimal text
inline constexpr long kLineVerifyKeyRefused      = 299;  // the public key is not the pinned one, or too small
inline constexpr long kLineVerifySpelling        = 301;  // signature text in another spelling than the signer's
inline constexpr long kLineVerifyFailed          = 304;  // signature does not fit
inline constexpr long kLineRequestUrl            = 322;  // base URL without "://"
inline constexpr long kLineResponseError         = 348;  // the response is an error message
inline constexpr long kLineResponseType          = 352;  // the response has another type
inline constexpr long kLineSetupEndpoint         = 371;  // configuration, no server address
inline constexpr long kLineSetupNoPaymentUrl     = 388;  // configuration without a payment address refused
inline constexpr long kLineDefaultsEndpoint      = 402;  // defaults, no server address
inline constexpr long kLineDefaultsTrace         = 421;  // trace "LOAD DEFAULTS"
inline constexpr long kLineImportEndpoint        = 432;  // key import, no server address
inline constexpr long kLineImportKeyRefused      = 449;  // server key refused
inline constexpr long kLineImportOwnKey          = 453;  // server key under the id of an own one
inline constexpr long kLineImportTrace           = 457;  // trace "IMPORT"
inline constexpr long kLinePublishEndpoint       = 468;  // key publication, no server address
inline constexpr long kLinePublishKey            = 475;  // no such key to publish
inline constexpr long kLinePublishTrace          = 497;  // trace "PUBLISH"
inline constexpr long kLineReconfigureNoContext  = 508;  // set-up, empty path
inline constexpr long kLineReconfigureStart      = 516;  // trace "START RECONFIGURE"
inline constexpr long kLineReconfigureKeyId      = 529;  // configuration without "VTKEYID"
inline constexpr long kLineReconfigureOk         = 545;  // trace "RECONFIGURE OK"
inline constexpr long kLineCreateKeyId           = 563;  // new message, empty "keys/current"
inline constexpr long kLineAttributeNoElement    = 579;  // attribute of an empty message
inline constexpr long kLineAttributeName         = 583;  // attribute with a name that no reader finds again
inline constexpr long kLineAttributeNotFound     = 588;  // no such attribute
inline constexpr long kLineUrlNoElement          = 594;  // URL of an empty message
inline constexpr long kLineUrlNoConfiguration    = 601;  // configuration without "VTURL"
inline constexpr long kLineCaptureNoElement      = 608;  // capture of an empty message
inline constexpr long kLineCaptureNoUrl          = 615;  // capture, configuration without "CAPTUREURL"
inline constexpr long kLineCaptureToken          = 620;  // capture without "TOKEN"
inline constexpr long kLineRequestNoElement      = 648;  // request of an empty message
inline constexpr long kLineRequestNoUrl          = 661;  // request, configuration without "CAPTUREURL"
inline constexpr long kLineMissingSignature      = 722;  // confirmation without signature
inline constexpr long kLineOpenNoKeyId           = 729;  // confirmation without "KEYID"
inline constexpr long kLineConfirmOwnKey         = 733;  // confirmation under a key whose private half is here
inline constexpr long kLineConfirmType           = 736;  // confirmation that is no "PayConfirm"
inline constexpr long kLineNoMessageContext      = 740;  // message without context
inline constexpr long kLineSettingsReentry       = 752;  // settings of a directory whose path reads like a URL

inline constexpr KvxSource kSourceUrl{"kvxurl"};
inline constexpr long kLineOpenFile              = 41;   // local file, cannot open
inline constexpr long kLineSplitUrl              = 52;   // malformed URL
// clang-format on

}  // namespace kvx

#endif
