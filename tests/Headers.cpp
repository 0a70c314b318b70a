// The program that the precompiled header of all test programs belongs to.
int main() {}
