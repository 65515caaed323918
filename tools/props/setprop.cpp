// setprop NAME VALUE: sets a host system property (a file under $VORD_ROOT/properties).

#include <cutils/properties.h>

#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        printf("usage: setprop NAME VALUE\n"
               "Sets a system property. On a host, NAME is the file $VORD_ROOT/properties/NAME\n"
               "(/run/vord/properties/NAME when VORD_ROOT is unset).\n"
               "Example: setprop vendor.sla.enabled 2   (stops a running vord)\n");
        return 0;
    }
    if (argc != 3) {
        fprintf(stderr, "usage: setprop NAME VALUE\n");
        return 2;
    }
    if (property_set(argv[1], argv[2]) != 0) {
        fprintf(stderr, "setprop: failed to set %s (invalid name, value of %d bytes or more, or "
                        "unwritable property directory)\n",
                argv[1], PROPERTY_VALUE_MAX);
        return 1;
    }
    return 0;
}
