# black-box tests: driver
