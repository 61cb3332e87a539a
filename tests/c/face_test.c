/* The flat functions, from C99, over the shared library: every function, its failures, and a whole payment.
 *
 * face_test DIRECTORY AUTOURL
 *
 * DIRECTORY exists and is empty; AUTOURL is the address of a sandbox's configuration service. Prints what it checks and
 * ends with 0 when all of it held, else with 1. */

#define _POSIX_C_SOURCE 200112L

#include <netdb.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>
#include <tallowin/tallowin.h>
#include <unistd.h>

enum { kTextBytes = 8192 };

static int failures = 0;
static int checks = 0;

/* ---- Checks ----------------------------------------------------------------------------------------------------- */

static void check(int held, char const* what) {
    ++checks;
    if (!held) {
        ++failures;
    }
    printf("  %s  %s\n", held ? "ok    " : "FAILED", what);
    fflush(stdout);
}

static void checkCode(int32_t code, int32_t expected, char const* what) {
    check(code == expected, what);
    if (code != expected) {
        printf("          got 0x%08lx, expected 0x%08lx\n", (unsigned long)(uint32_t)code,
               (unsigned long)(uint32_t)expected);
    }
}

static void checkText(char const* text, char const* expected, char const* what) {
    check(strcmp(text, expected) == 0, what);
    if (strcmp(text, expected) != 0) {
        printf("          got \"%s\", expected \"%s\"\n", text, expected);
    }
}

static void chapter(char const* title) {
    printf("%s\n", title);
}

/* ---- A shopper's browser, as small as can be -------------------------------------------------------------------- */

static char port[16];

/* Takes the port out of "http://127.0.0.1:PORT/...". */
static void notePort(char const* url) {
    size_t length = 0;
    char const* const digits = strstr(url, "127.0.0.1:");
    if (digits != NULL) {
        length = strspn(digits + 10, "0123456789");
        if (length < sizeof port) {
            memcpy(port, digits + 10, length);
            port[length] = '\0';
        }
    }
}

static int connected(void) {
    struct addrinfo hints;
    struct addrinfo* found = NULL;
    struct timeval timeout = {20, 0};
    int number = -1;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    if (getaddrinfo("127.0.0.1", port, &hints, &found) != 0) {
        return -1;
    }
    number = socket(found->ai_family, found->ai_socktype, found->ai_protocol);
    if (number >= 0) {
        setsockopt(number, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        setsockopt(number, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
        if (connect(number, found->ai_addr, found->ai_addrlen) != 0) {
            close(number);
            number = -1;
        }
    }
    freeaddrinfo(found);
    return number;
}

/* Sends `request` and receives until the other side closes. Returns 0 when that did not work. */
static int talk(char const* request, char* answer, size_t room) {
    size_t sent = 0;
    size_t received = 0;
    ssize_t count = 0;
    int const number = connected();
    answer[0] = '\0';
    if (number < 0) {
        return 0;
    }
    while (sent < strlen(request)) {
        count = send(number, request + sent, strlen(request) - sent, 0);
        if (count <= 0) {
            close(number);
            return 0;
        }
        sent += (size_t)count;
    }
    do {
        count = recv(number, answer + received, room - 1 - received, 0);
        received += count > 0 ? (size_t)count : 0;
    } while (count > 0 && received < room - 1);
    answer[received] = '\0';
    close(number);
    return count == 0 && received > 0;
}

/* Copies what stands between `before` and the next `after` in `text`. Returns 0 when there is no such thing. */
static int between(char const* text, char const* before, char const* after, char* found, size_t room) {
    char const* const at = strstr(text, before);
    char const* const from = at == NULL ? NULL : at + strlen(before);
    size_t const length = from == NULL ? 0 : strcspn(from, after);
    if (from == NULL || length >= room) {
        found[0] = '\0';
        return 0;
    }
    memcpy(found, from, length);
    found[length] = '\0';
    return 1;
}

/* Replaces "%xx" by the byte it stands for. */
static void decode(char* text) {
    char digits[3] = "";
    char const* from = text;
    char* to = text;
    while (*from != '\0') {
        if (from[0] == '%' && from[1] != '\0' && from[2] != '\0') {
            digits[0] = from[1];
            digits[1] = from[2];
            *to++ = (char)strtol(digits, NULL, 16);
            from += 3;
        } else {
            *to++ = *from++;
        }
    }
    *to = '\0';
}

/* Opens the payment page at `url`, pays, and takes apart the address that the shopper is sent to. */
static int shopperPays(char const* url, char* data, char* signature) {
    static char request[kTextBytes];
    static char answer[65536];
    char payment[128];
    char key[128];
    char form[512];
    char const* const path = strchr(strstr(url, "://") + 3, '/');
    if (snprintf(request, sizeof request, "GET %s HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", path) >=
        (int)sizeof request) {
        return 0;
    }
    if (!talk(request, answer, sizeof answer) ||
        !between(answer, "name=\"payment\" value=\"", "\"", payment, sizeof payment) ||
        !between(answer, "name=\"key\" value=\"", "\"", key, sizeof key)) {
        return 0;
    }
    snprintf(form, sizeof form, "payment=%s&key=%s&decision=pay", payment, key);
    snprintf(request, sizeof request,
             "POST /pay/decision HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
             "Content-Length: %lu\r\nConnection: close\r\n\r\n%s",
             (unsigned long)strlen(form), form);
    if (!talk(request, answer, sizeof answer) || !between(answer, "DATA=", "&\r\n", data, kTextBytes) ||
        !between(answer, "SIGNATURE=", "&#\r\n", signature, kTextBytes)) {
        return 0;
    }
    decode(data);
    return 1;
}

/* ---- Chapters --------------------------------------------------------------------------------------------------- */

static void testVersionAndTexts(void) {
    char text[64] = "";
    char small[4] = "###";
    int32_t size = 0;
    chapter("Version and texts of codes");
    checkText(KVX_GetVersion(), TALLOWIN_VERSION_STRING, "the library's version is that of the headers");
    check(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, &size, NULL) == 1 && size == 18, "asks for the size");
    check(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, &size, text) == 1, "copies the text");
    checkText(text, "invalid signature", "the text of KVX_E_INVALID_SIGNATURE");
    size = (int32_t)sizeof small;
    check(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, &size, small) == 1, "cuts instead of refusing");
    checkText(small, "inv", "the cut text");
    check(size == 18, "and still reports the need");
    size = 77;
    check(KVX_GetErrorStringFromResult(KVX_OK, &size, text) == 0 && size == 77, "0 has no text");
    check(KVX_GetErrorStringFromResult(KVX_E_BAD_HANDLE, &size, text) == 0, "nor has KVX_E_BAD_HANDLE");
    check(KVX_GetErrorStringFromResult(KVX_E_INVALID_SIGNATURE, NULL, text) == 0, "a null size is refused");
    checkText(KVX_GetErrorName(KVX_E_INVALID_SIGNATURE), "KVX_E_INVALID_SIGNATURE", "the name of a code");
    checkText(KVX_GetErrorName(KVX_E_TLS_FAMILY | 0x10B), "KVX_E_TLS_FAMILY", "that of a code inside a family");
    checkText(KVX_GetErrorName(2), "ENOENT", "that of an errno");
    checkText(KVX_GetErrorName(-1), "", "no code, no name");
    checkCode(KVX_E_NO_CONTEXT, (int32_t)-2147220991, "codes are signed 32-bit numbers");
}

/* Every function but Create and Destroy refuses `setup`, `factory` and `message` as no living object of its kind. */
static void refuseAll(KVX_HANDLE setup, KVX_HANDLE factory, KVX_HANDLE message) {
    int32_t size = 77;
    char text[8] = "#######";
    char mark = 0;
    KVX_HANDLE out = &mark;
    int32_t const codes[] = {
        ConfigurationSetup_SetConfiguration(setup, "/"),
        ConfigurationSetup_Reconfigure(setup, "", "", ""),
        ConfigurationSetup_SetOption(setup, "UserName", ""),
        ConfigurationSetup_GetAttribute(setup, "f", "n", &size, text),
        ConfigurationSetup_SetAttribute(setup, "f", "n", "v"),
        MessageFactory_Open(factory, "/"),
        MessageFactory_CreatePayInit(factory, &out),
        MessageFactory_VerifyPayConfirm(factory, "d", "s", &out),
        MessageFactory_CreatePayComplete(factory, "i", "t", &out),
        MessageFactory_CreateRequest(factory, "T", &out),
        MessageObject_Open(message, "/"),
        MessageObject_SetAttribute(message, "n", "v"),
        MessageObject_GetAttribute(message, "n", &size, text),
        MessageObject_GetURL(message, &size, text),
        MessageObject_Capture(message),
        MessageObject_Execute(message, &out),
        MessageObject_FromString(message, "<KVX/>"),
        MessageObject_ToString(message, &size, text),
    };
    size_t i = 0;
    int refused = 0;
    for (i = 0; i < sizeof codes / sizeof codes[0]; ++i) {
        refused += codes[i] == KVX_E_BAD_HANDLE ? 1 : 0;
    }
    check(refused == 18 && i == 18, "all 18 functions refuse it");
    check(size == 77 && strcmp(text, "#######") == 0 && out == (KVX_HANDLE)&mark, "and touch nothing");
}

static void testHandles(void) {
    KVX_HANDLE setup = CreateConfigurationSetup();
    KVX_HANDLE factory = CreateMessageFactory();
    KVX_HANDLE message = CreateMessageObject();
    uint32_t words[128] = {0};
    chapter("Handles");
    check(setup != NULL && factory != NULL && message != NULL, "objects can be made");
    check((uintptr_t)setup <= INT32_MAX && (uintptr_t)factory <= INT32_MAX && (uintptr_t)message <= INT32_MAX,
          "handles fit a positive 32-bit number");
    puts("  null:");
    refuseAll(NULL, NULL, NULL);
    puts("  memory that is no object:");
    refuseAll(words, words, words);
    puts("  another kind:");
    refuseAll(factory, message, setup);
    refuseAll(message, setup, factory);
    DestroyConfigurationSetup(factory);
    DestroyMessageFactory(message);
    DestroyMessageObject(setup);
    checkCode(MessageFactory_CreateRequest(factory, "", NULL), KVX_E_NO_MESSAGE_TYPE,
              "destroying as another kind is ignored");
    DestroyConfigurationSetup(setup);
    DestroyMessageFactory(factory);
    DestroyMessageObject(message);
    puts("  destroyed:");
    refuseAll(setup, factory, message);
    DestroyConfigurationSetup(setup);
    DestroyMessageFactory(factory);
    DestroyMessageObject(message);
    DestroyConfigurationSetup(NULL);
    DestroyMessageFactory(NULL);
    DestroyMessageObject(NULL);
    check(1, "destroying again, or nothing, is ignored");
}

static void testEmptyObjects(char const* directory) {
    char path[1024];
    char text[64] = "####";
    int32_t size = 77;
    KVX_HANDLE out = NULL;
    KVX_HANDLE const setup = CreateConfigurationSetup();
    KVX_HANDLE const factory = CreateMessageFactory();
    KVX_HANDLE const message = CreateMessageObject();
    chapter("Before anything is set up");
    checkCode(ConfigurationSetup_GetAttribute(setup, "config.xml", "VTURL", &size, text), KVX_E_NO_CONTEXT,
              "no directory: reading");
    checkCode(ConfigurationSetup_SetAttribute(setup, "config.xml", "VTURL", "v"), KVX_E_NO_CONTEXT,
              "no directory: writing");
    checkCode(ConfigurationSetup_SetAttribute(setup, "config.xml", "VTURL", ""), KVX_OK,
              "an empty value is never written");
    checkCode(ConfigurationSetup_Reconfigure(setup, "", "", ""), KVX_E_NO_CONTEXT, "no directory: set-up");
    checkCode(ConfigurationSetup_SetOption(setup, "username", "u"), KVX_E_INVALID_OPTION, "options are case-sensitive");
    checkCode(ConfigurationSetup_SetOption(setup, NULL, NULL), KVX_E_INVALID_OPTION, "null counts as empty");
    snprintf(path, sizeof path, "%s/missing/deeper", directory);
    check(ConfigurationSetup_SetConfiguration(setup, path) > 0, "a directory that cannot be made: a positive number");
    checkCode(ConfigurationSetup_GetAttribute(setup, "config.xml", "VTURL", &size, text), KVX_E_CANNOT_OPEN, "no file");
    checkCode(MessageFactory_Open(factory, path), KVX_OK, "a factory notes any path");
    check(MessageFactory_CreatePayInit(factory, &out) > 0, "and reports a wrong one when it makes something");
    checkCode(MessageFactory_CreateRequest(factory, "", &out), KVX_E_NO_MESSAGE_TYPE, "a request needs a type");
    checkCode(MessageFactory_Open(factory, directory), KVX_OK, "the empty directory");
    checkCode(MessageFactory_CreatePayInit(factory, &out), KVX_E_CANNOT_OPEN, "no current key: payment");
    checkCode(MessageFactory_CreatePayComplete(factory, "i", "t", &out), KVX_E_CANNOT_OPEN,
              "no current key: completion");
    checkCode(MessageFactory_VerifyPayConfirm(factory, "hello", "00", &out), KVX_E_INVALID_FORMAT, "no message");
    checkCode(MessageFactory_VerifyPayConfirm(factory, "<KVX/>", "", &out), KVX_E_MISSING_SIGNATURE, "no signature");
    checkCode(MessageFactory_VerifyPayConfirm(factory, "<KVX/>", "00", &out), KVX_E_NO_KEY_ID, "no key named");
    checkCode(MessageObject_Open(message, directory), KVX_E_CANNOT_OPEN, "no current key: message");
    check(out == NULL, "no handle was written");
    checkCode(MessageObject_FromString(message, "garbage"), KVX_E_INVALID_FORMAT, "a text that is no message");
    checkCode(MessageObject_SetAttribute(message, "A", "1"), KVX_E_UNEXPECTED, "an empty object: writing");
    checkCode(MessageObject_GetAttribute(message, "A", &size, text), KVX_E_UNEXPECTED, "an empty object: reading");
    checkCode(MessageObject_ToString(message, &size, text), KVX_E_UNEXPECTED, "an empty object: text");
    checkCode(MessageObject_GetURL(message, &size, text), KVX_E_UNEXPECTED, "an empty object: URL");
    checkCode(MessageObject_Capture(message), KVX_E_UNEXPECTED, "an empty object: capture");
    checkCode(MessageObject_Execute(message, &out), KVX_E_UNEXPECTED, "an empty object: request");
    check(size == 77 && strcmp(text, "####") == 0, "nothing was copied");
    checkCode(MessageObject_FromString(message, "<KVX A=\"1\"/>"), KVX_OK, "a message from text needs no directory");
    checkCode(MessageObject_Capture(message), KVX_E_CANNOT_OPEN, "sending does, with its addresses");
    size = 0;
    checkCode(MessageObject_ToString(message, &size, text), KVX_E_BUFFER_TOO_SMALL, "size 0 asks for the need");
    check(size == (int32_t)sizeof "<KVX A=\"1\" KEYID=\"\"/>", "the need counts the terminator");
    checkCode(MessageObject_ToString(message, NULL, text), KVX_E_BUFFER_TOO_SMALL, "a null size is refused");
    checkCode(MessageObject_ToString(message, &size, NULL), KVX_OK, "no buffer: nothing to copy");
    --size;
    checkCode(MessageObject_ToString(message, &size, text), KVX_E_BUFFER_TOO_SMALL, "one byte less is too small");
    checkText(text, "####", "and copies nothing");
    checkCode(MessageObject_ToString(message, &size, text), KVX_OK, "the exact size");
    checkText(text, "<KVX A=\"1\" KEYID=\"\"/>", "the text");
    DestroyMessageObject(message);
    DestroyMessageFactory(factory);
    DestroyConfigurationSetup(setup);
}

static void testSetUp(char const* directory, char const* autoUrl) {
    char text[256] = "";
    int32_t size = (int32_t)sizeof text;
    KVX_HANDLE const setup = CreateConfigurationSetup();
    chapter("Set-up");
    checkCode(ConfigurationSetup_SetConfiguration(setup, directory), KVX_OK, "choose the directory");
    checkCode(ConfigurationSetup_Reconfigure(setup, "", "demo", "demo"), KVX_E_NO_CONFIGURATION,
              "no address known yet");
    checkCode(ConfigurationSetup_Reconfigure(setup, autoUrl, "demo", "wrong"), KVX_E_SERVER_ERROR, "a wrong password");
    checkCode(ConfigurationSetup_SetOption(setup, "VTAUTOURL", autoUrl), KVX_OK, "the address as an option");
    checkCode(ConfigurationSetup_Reconfigure(setup, NULL, "demo", "demo"), KVX_OK, "register");
    checkCode(ConfigurationSetup_GetAttribute(setup, "config.xml", "KVX.VTAUTOURL", &size, text), KVX_OK,
              "read a value");
    checkText(text, autoUrl, "the address that the server reported");
    checkCode(ConfigurationSetup_GetAttribute(setup, "config.xml", "NONE", &size, text), KVX_E_NOT_FOUND,
              "a value that is not there");
    checkCode(ConfigurationSetup_SetAttribute(setup, "settings.xml", "USEPROXY", "0"), KVX_E_CANNOT_OPEN,
              "no file is made");
    checkCode(ConfigurationSetup_SetAttribute(setup, "default.xml", "LANGID", "de"), KVX_OK, "write a value");
    DestroyConfigurationSetup(setup);
}

/* The value of an attribute, in a buffer of this function's own; "?" when there is none. */
static char const* valueOf(KVX_HANDLE message, char const* name) {
    static char text[256];
    int32_t size = (int32_t)sizeof text;
    return MessageObject_GetAttribute(message, name, &size, text) == KVX_OK ? text : "?";
}

static void testPayment(char const* directory) {
    static char url[kTextBytes];
    static char data[kTextBytes];
    static char signature[kTextBytes];
    char token[64] = "";
    char id[64] = "";
    int32_t size = 0;
    KVX_HANDLE out = NULL;
    KVX_HANDLE payment = NULL;
    KVX_HANDLE confirmation = NULL;
    KVX_HANDLE completion = NULL;
    KVX_HANDLE answer = NULL;
    KVX_HANDLE const factory = CreateMessageFactory();
    KVX_HANDLE const capture = CreateMessageObject();

    chapter("A payment");
    checkCode(MessageFactory_Open(factory, directory), KVX_OK, "open the factory");
    checkCode(MessageFactory_CreatePayInit(factory, &payment), KVX_OK, "a new payment");
    checkText(valueOf(payment, "MSGTYPE"), "PayInit", "its type");
    checkText(valueOf(payment, "LANGID"), "de", "its defaults");
    checkCode(MessageObject_SetAttribute(payment, "ORDERID", "A-17 <&>"), KVX_OK, "set the order");
    checkCode(MessageObject_SetAttribute(payment, "AMOUNT", "12.50"), KVX_OK, "set the amount");
    checkCode(MessageObject_SetAttribute(payment, "CURRENCY", "EUR"), KVX_OK, "set the currency");
    size = (int32_t)sizeof token;
    checkCode(MessageObject_GetAttribute(payment, "TOKEN", &size, token), KVX_OK, "remember the token");
    check(size == 33, "32 digits and the terminator");
    size = 0;
    checkCode(MessageObject_GetURL(payment, &size, NULL), KVX_E_BUFFER_TOO_SMALL, "how long is the URL");
    check(size > 100 && size < kTextBytes, "long, but it fits");
    checkCode(MessageObject_GetURL(payment, &size, url), KVX_OK, "the payment URL");
    check((size_t)size == strlen(url) + 1, "of exactly that length");
    printf("          %s\n", url);

    notePort(url);
    check(shopperPays(url, data, signature), "the shopper pays");
    checkCode(MessageFactory_VerifyPayConfirm(factory, data, signature, &confirmation), KVX_OK,
              "verify what came back");
    checkText(valueOf(confirmation, "MSGTYPE"), "PayConfirm", "it is a confirmation");
    checkText(valueOf(confirmation, "TOKEN"), token, "of this payment");
    checkText(valueOf(confirmation, "AMOUNT"), "12.50", "over this amount");
    checkText(valueOf(confirmation, "CURRENCY"), "EUR", "in this currency");
    checkText(valueOf(confirmation, "ORDERID"), "A-17 <&>", "for this order");
    checkText(valueOf(confirmation, "RESULT"), "authorised", "and the shopper has paid");
    checkCode(MessageObject_GetURL(confirmation, &size, url), KVX_E_UNEXPECTED, "a confirmation has no URL");
    checkCode(MessageObject_Capture(confirmation), KVX_E_NOT_FOUND, "nor a key to sign with");
    size = (int32_t)sizeof id;
    checkCode(MessageObject_GetAttribute(confirmation, "ID", &size, id), KVX_OK, "remember the server's number");

    checkCode(MessageObject_Open(capture, directory), KVX_OK, "a message to capture with");
    checkText(valueOf(capture, "MSGTYPE"), "ERROR", "is empty at first");
    checkCode(MessageObject_Capture(capture), KVX_E_UNEXPECTED, "and has no token");
    checkCode(MessageObject_FromString(capture, data), KVX_OK, "takes the confirmation's text");
    checkCode(MessageObject_Capture(capture), KVX_OK, "capture");

    checkCode(MessageFactory_CreatePayComplete(factory, id, token, &completion), KVX_OK, "a completion");
    checkCode(MessageObject_Execute(completion, &answer), KVX_OK, "complete");
    checkText(valueOf(answer, "MSGTYPE"), "PayCompleteResponse", "the answer");
    checkText(valueOf(answer, "STATE"), "completed", "says so");
    checkCode(MessageObject_Execute(completion, &out), KVX_E_SERVER_ERROR, "it is sent once only");
    data[0] = ' ';
    checkCode(MessageFactory_VerifyPayConfirm(factory, data, signature, &out), KVX_E_INVALID_FORMAT, "a changed text");
    data[0] = '<';
    signature[0] = signature[0] == '0' ? '1' : '0';
    checkCode(MessageFactory_VerifyPayConfirm(factory, data, signature, &out), KVX_E_INVALID_SIGNATURE,
              "a changed signature");
    checkCode(MessageFactory_CreateRequest(factory, "Unheard", &out), KVX_OK, "a request of another type");
    checkCode(MessageObject_Execute(out, &answer), KVX_E_SERVER_ERROR, "that the server does not know");

    DestroyMessageObject(out);
    DestroyMessageObject(answer);
    DestroyMessageObject(completion);
    DestroyMessageObject(capture);
    DestroyMessageObject(confirmation);
    DestroyMessageObject(payment);
    DestroyMessageFactory(factory);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: face_test DIRECTORY AUTOURL\n");
        return 2;
    }
    testVersionAndTexts();
    testHandles();
    testEmptyObjects(argv[1]);
    testSetUp(argv[1], argv[2]);
    testPayment(argv[1]);
    printf("%d checks, %d failures\n", checks, failures);
    return failures == 0 ? 0 : 1;
}
