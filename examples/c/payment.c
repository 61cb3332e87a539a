/* A whole payment in C. Shows how to set up an account, create a payment URL, verify a confirmation, capture and
 * complete, and how to ask the library for the size of a text first.
 *
 *   TALLOWIN_PASSWORD=... tallowin-payment-c DIRECTORY SERVICE USER
 *
 * DIRECTORY   the configuration directory of the account; the first run sets it up
 * SERVICE     the payment service's set-up address, such as http://127.0.0.1:8080/auto of a running tallowin-sandbox
 * USER        the account's user; a new sandbox has "demo" with password "demo"
 *
 * The program prints a payment URL. Open it in a browser, pay, and paste the address that the browser shows then. */
#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tallowin/tallowin.h>

static char const kAmount[] = "19.90";
static char const kCurrency[] = "EUR";

/* Whether a call succeeded; prints the failure otherwise. Failures may be positive: compare with KVX_OK, not with "<
 * 0". */
static int ok(char const* action, int32_t code) {
    char text[128] = "no text";
    int32_t size = sizeof text;
    if (code == KVX_OK) {
        return 1;
    }
    KVX_GetErrorStringFromResult(code, &size, text);
    fprintf(stderr, "%s: result 0x%08lX, %s\n", action, (unsigned long)(uint32_t)code, text);
    return 0;
}

/* Whether the system says that there is no such file. The library has one result for a missing file and for one that
 * cannot be opened. */
static int isMissing(char const* directory, char const* name) {
    char path[4096];
    FILE* file = NULL;
    int length = snprintf(path, sizeof path, "%s/%s", directory, name);
    if (length < 0 || (size_t)length >= sizeof path) {
        return 0;
    }
    file = fopen(path, "r");
    if (file == NULL) {
        return errno == ENOENT;
    }
    fclose(file);
    return 0;
}

/* Sets up the directory unless an earlier run did. A set-up writes the current key id last. One that is there and
 * cannot be read ends the program: a new set-up would replace the key. */
static int setUp(char const* directory, char const* service, char const* user, char const* password) {
    KVX_HANDLE setup = CreateConfigurationSetup();
    int32_t size = 0;
    int done = ok("choosing the directory", ConfigurationSetup_SetConfiguration(setup, directory));
    if (done) {
        int32_t code = ConfigurationSetup_GetAttribute(setup, "keys/current", "", &size, NULL);
        if (code == KVX_E_CANNOT_OPEN && isMissing(directory, "keys/current")) {
            done = ok("setting up", ConfigurationSetup_Reconfigure(setup, service, user, password));
        } else if (code != KVX_E_BUFFER_TOO_SMALL) {
            done = ok("reading keys/current", code);
        }
    }
    DestroyConfigurationSetup(setup);
    return done;
}

/* Prints the signed URL of `payment`: asks for its size first, then for the text. */
static int printUrl(KVX_HANDLE payment) {
    int32_t size = 0;
    char* url = NULL;
    int done = 0;
    if (MessageObject_GetURL(payment, &size, NULL) == KVX_E_BUFFER_TOO_SMALL) {
        url = malloc((size_t)size);
    }
    done = url != NULL && ok("creating the URL", MessageObject_GetURL(payment, &size, url));
    if (done) {
        printf("Send the shopper to:\n%s\n", url);
        fflush(stdout);
    }
    free(url);
    return done;
}

/* Starts a payment. A shop stores `token` with the order and redirects the browser to the URL. */
static int startPayment(KVX_HANDLE factory, char* token, int32_t tokenSize) {
    KVX_HANDLE payment = NULL;
    int done = ok("creating a payment", MessageFactory_CreatePayInit(factory, &payment)) &&
               ok("setting ORDERID", MessageObject_SetAttribute(payment, "ORDERID", "1001")) &&
               ok("setting AMOUNT", MessageObject_SetAttribute(payment, "AMOUNT", kAmount)) &&
               ok("setting CURRENCY", MessageObject_SetAttribute(payment, "CURRENCY", kCurrency)) &&
               ok("reading TOKEN", MessageObject_GetAttribute(payment, "TOKEN", &tokenSize, token)) &&
               printUrl(payment);
    DestroyMessageObject(payment);
    return done;
}

/* Decodes the percent escapes of a query parameter in place and ends the text after it. */
static void decode(char* text) {
    char const* from = text;
    while (*from != '\0' && *from != '&' && *from != '#' && *from != '\n') {
        if (from[0] == '%' && isxdigit((unsigned char)from[1]) && isxdigit((unsigned char)from[2])) {
            char const digits[3] = {from[1], from[2], '\0'};
            *text++ = (char)strtol(digits, NULL, 16);
            from += 3;
        } else {
            *text++ = *from++;
        }
    }
    *text = '\0';
}

/* The decoded value of a query parameter; null when absent. `key` is "?NAME=" or "&NAME=". A shop's web framework does
 * this. */
static char* takeParameter(char* address, char const* key) {
    char* value = strstr(address, key);
    if (value != NULL) {
        value += strlen(key);
        decode(value);
    }
    return value;
}

/* Whether attribute `name` is exactly `wanted`. */
static int is(KVX_HANDLE message, char const* name, char const* wanted) {
    char value[256];
    int32_t size = sizeof value;
    if (MessageObject_GetAttribute(message, name, &size, value) == KVX_OK && strcmp(value, wanted) == 0) {
        return 1;
    }
    fprintf(stderr, "refused: %s is not \"%s\"\n", name, wanted);
    return 0;
}

/* Whether the payment is paid. A valid signature is not enough: the message must be a confirmation, of this payment, of
 * the whole amount, with a result that means paid; the service confirms cancelled payments too. `id` receives the
 * payment's id. */
static int isPaid(KVX_HANDLE factory, char const* data, char const* signature, char const* token, char* id,
                  int32_t idSize) {
    KVX_HANDLE message = NULL;
    int paid = ok("verifying", MessageFactory_VerifyPayConfirm(factory, data, signature, &message)) &&
               is(message, "MSGTYPE", "PayConfirm") && is(message, "TOKEN", token) && is(message, "AMOUNT", kAmount) &&
               is(message, "CURRENCY", kCurrency) && is(message, "RESULT", "authorised") &&
               ok("reading ID", MessageObject_GetAttribute(message, "ID", &idSize, id));
    DestroyMessageObject(message);
    return paid;
}

/* Captures the payment. Open gives the object the merchant's signing key; FromString then fills it with the
 * confirmation. */
static int capture(char const* directory, char const* data) {
    KVX_HANDLE message = CreateMessageObject();
    int done = ok("opening a message", MessageObject_Open(message, directory)) &&
               ok("filling it", MessageObject_FromString(message, data)) &&
               ok("capturing", MessageObject_Capture(message));
    DestroyMessageObject(message);
    return done;
}

/* Completes the payment: reports to the service that the order is fulfilled. */
static int complete(KVX_HANDLE factory, char const* id, char const* token) {
    KVX_HANDLE completion = NULL;
    KVX_HANDLE answer = NULL;
    int done = ok("creating a completion", MessageFactory_CreatePayComplete(factory, id, token, &completion)) &&
               ok("completing", MessageObject_Execute(completion, &answer));
    DestroyMessageObject(answer);
    DestroyMessageObject(completion);
    return done;
}

static int sell(KVX_HANDLE factory, char const* directory) {
    char token[64];
    char id[128];
    char address[8192];
    char* data = NULL;
    char* signature = NULL;
    if (!ok("opening the factory", MessageFactory_Open(factory, directory)) ||
        !startPayment(factory, token, sizeof token)) {
        return 0;
    }
    printf("Paste the address that the browser shows now:\n");
    fflush(stdout);
    if (fgets(address, sizeof address, stdin) == NULL) {
        fprintf(stderr, "no address\n");
        return 0;
    }
    signature = takeParameter(address, "&SIGNATURE="); /* the last parameter first: decoding ends the text */
    data = takeParameter(address, "?DATA=");
    if (data == NULL || signature == NULL) {
        fprintf(stderr, "the address has no DATA and SIGNATURE\n");
        return 0;
    }
    if (!isPaid(factory, data, signature, token, id, sizeof id) || !capture(directory, data) ||
        !complete(factory, id, token)) {
        return 0;
    }
    printf("Payment %s is captured and completed.\n", id);
    return 1;
}

int main(int argc, char** argv) {
    char const* password = getenv("TALLOWIN_PASSWORD");
    KVX_HANDLE factory = NULL;
    int done = 0;
    if (argc != 4 || password == NULL) {
        fprintf(stderr, "usage: TALLOWIN_PASSWORD=... %s DIRECTORY SERVICE USER\n", argv[0]);
        return 2;
    }
    factory = CreateMessageFactory();
    done = setUp(argv[1], argv[2], argv[3], password) && sell(factory, argv[1]);
    DestroyMessageFactory(factory);
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
