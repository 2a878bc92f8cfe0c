# black-box tests: nonlinear
