/* One of the main paths of a merchant's server, a number of times.
 *
 *   mainpaths payment|confirmation|capture DIRECTORY COUNT [DATA SIGNATURE]
 *
 * DIRECTORY is a configuration directory after set-up. `confirmation` verifies DATA with SIGNATURE. Exit status 1 when
 * a call fails. Each path is what one request to a shop makes: the factory is kept, the message is not. */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tallowin/tallowin.h"

static void require(int32_t code, char const* what) {
    if (code != KVX_OK) {
        fprintf(stderr, "%s: 0x%08X\n", what, (unsigned)code);
        exit(1);
    }
}

static void makePayment(KVX_HANDLE factory) {
    static char const* const kOrder[][2] = {
        {"AMOUNT", "1250"}, {"CURRENCY", "EUR"}, {"ORDERID", "A & B 4711"}, {"DESCRIPTION", "Tea"}};
    KVX_HANDLE message = NULL;
    char url[4096];
    int32_t size = sizeof url;
    require(MessageFactory_CreatePayInit(factory, &message), "CreatePayInit");
    for (size_t i = 0; i < sizeof kOrder / sizeof *kOrder; ++i) {
        require(MessageObject_SetAttribute(message, kOrder[i][0], kOrder[i][1]), "SetAttribute");
    }
    require(MessageObject_GetURL(message, &size, url), "GetURL");
    DestroyMessageObject(message);
}

static void verifyConfirmation(KVX_HANDLE factory, char const* data, char const* signature) {
    KVX_HANDLE message = NULL;
    require(MessageFactory_VerifyPayConfirm(factory, data, signature, &message), "VerifyPayConfirm");
    DestroyMessageObject(message);
}

static void capture(KVX_HANDLE factory) {
    KVX_HANDLE message = NULL;
    require(MessageFactory_CreatePayComplete(factory, "0123456789abcdef0123456789abcdef",
                                             "abcdef0123456789abcdef0123456789", &message),
            "CreatePayComplete");
    require(MessageObject_Capture(message), "Capture");
    DestroyMessageObject(message);
}

int main(int argc, char** argv) {
    if (argc < 4) {
        return 2;
    }
    KVX_HANDLE const factory = CreateMessageFactory();
    require(MessageFactory_Open(factory, argv[2]), "Open");
    for (long left = strtol(argv[3], NULL, 10); left > 0; --left) {
        if (strcmp(argv[1], "payment") == 0) {
            makePayment(factory);
        } else if (strcmp(argv[1], "capture") == 0) {
            capture(factory);
        } else if (argc == 6) {
            verifyConfirmation(factory, argv[4], argv[5]);
        } else {
            return 2;
        }
    }
    DestroyMessageFactory(factory);
    return 0;
}
