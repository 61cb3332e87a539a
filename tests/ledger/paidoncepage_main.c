/* The program around the C of docs/paid-once.md: STORE ACCOUNT COMMAND ARGUMENTS.
 *
 *   setup URL                  sets the account up
 *   pay NUMBER AMOUNT          prints the payment URL
 *   confirmed DATA SIGNATURE   prints the status to respond with
 *   work                       works
 *   state NUMBER, export NUMBER
 *
 * "deliver NUMBER" is printed for each delivery. */

#include <stdio.h>
#include <string.h>
#include <tallowin/ledger.h>

void deliver(char const* order);
int32_t pay(KVX_HANDLE ledger, char const* number, char const* amount, int32_t size, char* url);
int confirmed(KVX_HANDLE ledger, char const* messenger, char const* data, char const* signature);
void work(KVX_HANDLE ledger);

void deliver(char const* order) {
    printf("deliver %s\n", order);
}

static int fail(char const* what, int32_t code) {
    char reason[1000] = "";
    int32_t size = (int32_t)sizeof reason;
    Ledger_GetLastErrorText(&size, reason);
    fprintf(stderr, "%s: %s %s\n", what, KVX_GetErrorName(code), reason);
    return 1;
}

static int set_up(char const* account, char const* url) {
    KVX_HANDLE setup = CreateConfigurationSetup();
    int32_t result = ConfigurationSetup_SetConfiguration(setup, account);
    result = result == KVX_OK ? ConfigurationSetup_Reconfigure(setup, url, "demo", "demo") : result;
    DestroyConfigurationSetup(setup);
    return result == KVX_OK ? 0 : fail("set-up", result);
}

int main(int argc, char** argv) {
    static char text[200000];
    int32_t size = (int32_t)sizeof text;
    int32_t result;
    KVX_HANDLE ledger;
    if (argc == 5 && strcmp(argv[3], "setup") == 0) {
        return set_up(argv[2], argv[4]);
    }
    ledger = CreateLedger();
    result = Ledger_Open(ledger, argv[1], argv[2]);
    if (result != KVX_OK) {
        return fail("open", result);
    }
    if (argc == 6 && strcmp(argv[3], "pay") == 0) {
        result = pay(ledger, argv[4], argv[5], size, text);
        puts(text);
    } else if (argc == 6 && strcmp(argv[3], "confirmed") == 0) {
        printf("%d\n", confirmed(ledger, "return", argv[4], argv[5]));
    } else if (argc == 4 && strcmp(argv[3], "work") == 0) {
        work(ledger);
    } else if (argc == 5 && strcmp(argv[3], "state") == 0) {
        result = Ledger_GetState(ledger, argv[4], &size, text);
        puts(text);
    } else if (argc == 5 && strcmp(argv[3], "export") == 0) {
        result = Ledger_ExportOrder(ledger, argv[4], &size, text);
        puts(text);
    } else {
        return 2;
    }
    DestroyLedger(ledger);
    return result == KVX_OK ? 0 : fail(argv[3], result);
}
