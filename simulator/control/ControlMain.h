#ifndef CONTROLMAIN_H
#define CONTROLMAIN_H

/**
 * product-control [--out DIR] [--follow | LINE...]: gives control lines to a virtual product, or
 * shows its journal. Returns 0, or 1 when a line was refused or there is no product.
 */
int controlMain(int argc, char **argv);

#endif
