// (to be written)
int main() { return -1; }
