#ifndef HUBMAIN_H
#define HUBMAIN_H

/**
 * The hub of the virtual product, inside its namespaces: runs the product until it is told to quit,
 * or until the command in PRODUCT_COMMAND ends. Returns the exit status.
 */
int hubMain(int argc, char **argv);

#endif
