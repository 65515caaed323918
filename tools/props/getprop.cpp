// getprop NAME [DEFAULT]: prints a host system property.

#include <cutils/properties.h>

#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        printf("usage: getprop NAME [DEFAULT]\n"
               "Prints a system property, or DEFAULT (empty) when it is unset. On a host,\n"
               "NAME is the file $VORD_ROOT/properties/NAME.\n");
        return 0;
    }
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: getprop NAME [DEFAULT]\n");
        return 2;
    }
    char value[PROPERTY_VALUE_MAX];
    property_get(argv[1], value, argc == 3 ? argv[2] : "");
    printf("%s\n", value);
    return 0;
}
