#include <stdio.h>
#include <string.h>
#include <tallowin/tallowin.h>

int main(int argc, char** argv) {
    KVX_HANDLE shop = CreateMessageFactory(), order = NULL, paid = NULL;
    char url[4096], data[4096], signature[1024], reason[1024] = "", result[32];
    int32_t urlSize = sizeof url, reasonSize = sizeof reason, resultSize = sizeof result;
    if (argc == 2 && MessageFactory_Open(shop, argv[1]) == KVX_OK &&
        MessageFactory_CreatePayInit(shop, &order) == KVX_OK &&
        MessageObject_SetAttribute(order, "AMOUNT", "19.90") == KVX_OK &&
        MessageObject_SetAttribute(order, "CURRENCY", "EUR") == KVX_OK &&
        MessageObject_GetURL(order, &urlSize, url) == KVX_OK && puts(url) >= 0 && fflush(stdout) == 0 &&
        scanf("%4095[^\n]%*c%1023s", data, signature) == 2 &&
        MessageFactory_VerifyPayConfirm(shop, data, signature, &paid) == KVX_OK &&
        MessageObject_GetAttribute(paid, "RESULT", &resultSize, result) == KVX_OK)
        return printf("%s\n", result) < 0;
    KVX_GetLastErrorText(&reasonSize, reason);
    return fprintf(stderr, "%s\n", reason), 1;
}
