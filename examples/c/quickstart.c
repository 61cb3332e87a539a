/* A payment in twenty lines, between the two markers. The rest stands for code that a shop already has.
 *
 *   tallowin-quickstart-c DIRECTORY SERVICE
 *
 * DIRECTORY   the configuration directory; this program creates it and sets it up for the sandbox's account "demo".
 *             Every start sets up again and makes a new merchant key; a shop does this once.
 * SERVICE     set-up address of a running tallowin-sandbox, such as http://127.0.0.1:8080/auto
 *
 * The program prints the payment URL, then reads DATA and SIGNATURE of the confirmation from standard input: one per
 * line, percent-decoded, as a web framework returns them. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tallowin/tallowin.h>

static char data[8192];
static char signature[1024];

/* Ends the program unless the call succeeded. */
static void must(int32_t code) {
    char text[128] = "no text";
    int32_t size = sizeof text;
    if (code == KVX_OK) {
        return;
    }
    KVX_GetErrorStringFromResult(code, &size, text);
    fprintf(stderr, "result 0x%08lX: %s\n", (unsigned long)(uint32_t)code, text);
    exit(EXIT_FAILURE);
}

/* Ends the program unless attribute `name` is `wanted`. */
static void mustBe(KVX_HANDLE message, char const* name, char const* wanted) {
    char value[256];
    int32_t size = sizeof value;
    must(MessageObject_GetAttribute(message, name, &size, value));
    if (strcmp(value, wanted) != 0) {
        fprintf(stderr, "not paid: %s is \"%s\", not \"%s\"\n", name, value, wanted);
        exit(EXIT_FAILURE);
    }
}

static void readLine(char* line, int size) {
    if (fgets(line, size, stdin) == NULL || strchr(line, '\n') == NULL) {
        fprintf(stderr, "expected DATA and SIGNATURE, one per line\n");
        exit(EXIT_FAILURE);
    }
    line[strcspn(line, "\n")] = '\0';
}

/* A shop redirects the browser to `url`; its return page then receives DATA and SIGNATURE. */
static void sendShopperTo(char const* url) {
    printf("%s\n", url);
    fflush(stdout);
    readLine(data, sizeof data);
    readLine(signature, sizeof signature);
}

/* A merchant does this once per account. */
static void setUp(char const* directory, char const* service) {
    KVX_HANDLE setup = CreateConfigurationSetup();
    must(ConfigurationSetup_SetConfiguration(setup, directory));
    must(ConfigurationSetup_Reconfigure(setup, service, "demo", "demo"));
    DestroyConfigurationSetup(setup);
}

static void sell(char const* directory) {
    /* [quickstart] */
    KVX_HANDLE shop = CreateMessageFactory(), order = NULL, paid = NULL, capture = CreateMessageObject();
    char url[4096], token[64];
    int32_t urlSize = sizeof url, tokenSize = sizeof token;
    must(MessageFactory_Open(shop, directory));
    must(MessageFactory_CreatePayInit(shop, &order));
    must(MessageObject_SetAttribute(order, "AMOUNT", "19.90"));
    must(MessageObject_SetAttribute(order, "CURRENCY", "EUR"));
    must(MessageObject_GetAttribute(order, "TOKEN", &tokenSize, token));
    must(MessageObject_GetURL(order, &urlSize, url));
    sendShopperTo(url); /* the shopper returns with DATA and SIGNATURE */
    must(MessageFactory_VerifyPayConfirm(shop, data, signature, &paid));
    mustBe(paid, "MSGTYPE", "PayConfirm");
    mustBe(paid, "RESULT", "authorised");
    mustBe(paid, "TOKEN", token);
    mustBe(paid, "AMOUNT", "19.90");
    mustBe(paid, "CURRENCY", "EUR");
    must(MessageObject_Open(capture, directory));
    must(MessageObject_FromString(capture, data));
    must(MessageObject_Capture(capture));
    puts("The payment is captured.");
    /* [/quickstart] */
    DestroyMessageObject(capture);
    DestroyMessageObject(paid);
    DestroyMessageObject(order);
    DestroyMessageFactory(shop);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s DIRECTORY SERVICE\n", argv[0]);
        return 2;
    }
    setUp(argv[1], argv[2]);
    sell(argv[1]);
    return EXIT_SUCCESS;
}
