# black-box tests: panel
