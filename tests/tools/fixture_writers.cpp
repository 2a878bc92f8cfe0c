// volume file writers for tests
