/* SPDX-License-Identifier: MIT */
/* The least that a C++ program is. */
int main() {
    return 0;
}
